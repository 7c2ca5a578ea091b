// What the subjects share: an observation is one line, its name, a tab and its value, and a value
// holds nothing that differs from run to run.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>

#include <windows.h>

#include <string>

namespace parity {

// For what should come and may not; longer in a calm run, for a machine that is busy.
inline bool g_calm = false;
inline DWORD PatienceMs() { return g_calm ? 5000 : 1500; }
constexpr DWORD kQuietMs = 300;  // for what should not come

void Note(const char* name, const std::string& value);

// "error N" for SOCKET_ERROR, with the thread's last error; the number otherwise.
std::string Said(int result);
std::string ErrorText(int error);
std::string YesNo(bool yes);
std::string Number(unsigned long long number);

class Socket {
 public:
  explicit Socket(SOCKET s) : s_(s) {}
  ~Socket() { Close(); }
  Socket(Socket&& other) noexcept : s_(other.s_) { other.s_ = INVALID_SOCKET; }
  Socket& operator=(const Socket&) = delete;
  operator SOCKET() const { return s_; }  // NOLINT: it is one
  int Close() {
    const SOCKET s = s_;
    s_ = INVALID_SOCKET;
    return s == INVALID_SOCKET ? 0 : closesocket(s);
  }

 private:
  SOCKET s_;
};

// An event of Winsock's, of manual reset.
class Event {
 public:
  Event() : handle_(WSACreateEvent()) {}
  ~Event() { WSACloseEvent(handle_); }
  Event(const Event&) = delete;
  operator WSAEVENT() const { return handle_; }  // NOLINT: it is one
  bool Await(DWORD patience_ms = PatienceMs()) const {
    return WaitForSingleObject(handle_, patience_ms) == WAIT_OBJECT_0;
  }

 private:
  WSAEVENT handle_;
};

// How long something took, as a class.
class Watch {
 public:
  std::string Took(DWORD wanted_ms) const;  // "at once", "as asked", "late"
 private:
  DWORD begin_ = GetTickCount();
};

sockaddr_in Address(const char* ip, int port);
inline const sockaddr* Of(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}
inline sockaddr* Of(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }
std::string Text(const sockaddr_in& address);  // the ports of the peers by number, others "other"

// --- The peers in the bed. -----------------------------------------------------------------
constexpr char kServerIp[] = "198.51.100.10";  // in the tables
constexpr char kSecondIp[] = "198.51.100.11";  // in the tables too
constexpr char kDirectIp[] = "198.51.100.15";  // in no table
constexpr char kNobodyIp[] = "203.0.113.7";    // not on this network
constexpr int kPort = 7100;                    // does what the first line asks for
constexpr int kOtherPort = 7101;
constexpr int kRefusedPort = 7102;  // nobody listens
constexpr int kFullPort = 7103;     // answers no handshake
constexpr int kFirstPort = 7104;    // speaks first

Socket NewStream();
Socket NewDatagram();

// A connection whose peer has been asked to do something, see peers.py. Calls that would block for
// ever end after PatienceMs().
struct Peer {
  Socket s;
  std::string id;
  int connected;            // what connect said
  std::string Saw() const;  // what the peer saw of it until its end
};
Peer Ask(const std::string& what);
void Bound(SOCKET s);  // gives its blocking calls that time limit
// What to send so that a fresh connection's peer does it.
std::string Request(const std::string& id, const std::string& what);
std::string NewId();
std::string PeerSaw(const std::string& id);

// --- Small steps. -----------------------------------------------------------------------------
int Send(SOCKET s, const std::string& text, int flags = 0);
std::string Receive(SOCKET s, int size = 64, int flags = 0);  // text, "end", or the error
std::string ReceiveAll(SOCKET s, size_t size);                // that many bytes, however they come
std::string ReceiveToEnd(SOCKET s);                           // "text, end", or "text, error N"
void SetBlocking(SOCKET s, bool blocking);
int ErrorOption(SOCKET s);                   // SO_ERROR
std::string Ready(SOCKET s, DWORD wait_ms);  // of "read write except", what select says
bool Readable(SOCKET s, DWORD wait_ms = PatienceMs());
bool Writable(SOCKET s, DWORD wait_ms = PatienceMs());
// A listener on the loopback, a connected pair of sockets over it.
Socket Listener(sockaddr_in* address);
struct Pair {
  Socket near_end;
  Socket far_end;
};
Pair LoopbackPair();

template <class Function>
Function Extension(SOCKET s, GUID id) {
  Function function = nullptr;
  DWORD bytes = 0;
  WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &function, sizeof function,
           &bytes, nullptr, nullptr);
  return function;
}

// A request that goes on by itself.
class Pending {
 public:
  Pending() { overlapped.hEvent = event; }
  // How it ended: "5 bytes", "error N", or "pending" once the time is over; then it is cancelled.
  std::string End(SOCKET s, int result, DWORD patience_ms = PatienceMs());

  Event event;
  WSAOVERLAPPED overlapped = {};
  DWORD flags = 0;
};

// --- Subjects; each has a file. -----------------------------------------------------------------
void Arguments();
void States();
void Connecting();
void Blocking();
void PartialSends();
void HalfClose();
void Resets();
void OutOfBand();
void ByEvent();
void ByRoutine();
void ByPort();
void ExtensionFunctions();
void Selecting();
void EventSelect();
void AsyncSelect();
void Polling();
void Duplicated();
void Inherited();
void Options();
void Names();
void Datagrams();
void ConnectedDatagrams();
void OverlappedDatagrams();
void Listening();
void Ipv6();

// What the child of `Inherited` does with the handle it got.
int Child(const char* handle_text, const std::string& kind);

}  // namespace parity
