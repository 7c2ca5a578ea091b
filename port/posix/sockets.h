// Sockets of the posix backend: real sockets with the semantics of Windows.
//
// Every host socket is non-blocking. A blocking call waits in poll, together with a descriptor of
// its thread, so closing the socket or ending the thread interrupts the call.
//
// Functions return a Windows error number, 0 for success, and never touch the last error.
// Threads: any. A socket's lock is a leaf and is never held across a wait.
#pragma once
#include <winsock2.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace port {

class Thread;

struct Socket {
  enum class Connect { kNone, kPending, kDone, kFailed };

  Socket(int native_fd, int family_, int type_, int protocol_)
      : fd(native_fd), family(family_), type(type_), protocol(protocol_) {}
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  bool stream() const { return type == SOCK_STREAM; }

  const int fd;
  const int family, type, protocol;
  std::atomic<bool> non_blocking{false};
  std::atomic<bool> closed{false};
  std::atomic<bool> bound{false};
  std::atomic<bool> listening{false};
  std::atomic<bool> shut_recv{false}, shut_send{false};
  std::atomic<bool> report_unreachable{true};                 // SIO_UDP_CONNRESET
  std::atomic<bool> reset{false};                             // the peer's reset was seen
  std::atomic<DWORD> recv_timeout_ms{0}, send_timeout_ms{0};  // 0: none
  std::atomic<int> send_buffer{65536}, recv_buffer{65536};    // as requested
  std::atomic<bool> exclusive{false};
  std::atomic<bool> oob_inline{false};

  std::atomic<Connect> connect{Connect::kNone};  // written under the lock
  std::atomic<int> pending_error{0};             // what SO_ERROR will return once; likewise

  std::mutex lock;               // guards what follows
  std::vector<Thread*> waiters;  // threads that poll this socket alone
};
using SocketRef = std::shared_ptr<Socket>;
using SelectedSockets = std::vector<SocketRef>;

// Registers a thread while it polls many sockets at once, and keeps the sockets alive. Designed for
// loops with many sockets and few changes: it takes one lock, and a change of a socket searches
// every selection for it.
class Selecting {
 public:
  Selecting(const SelectedSockets& sockets, Thread& thread);
  ~Selecting();
  Selecting(const Selecting&) = delete;
  Selecting& operator=(const Selecting&) = delete;

  void WakeIfSelected(const Socket& socket) const;

 private:
  const SelectedSockets& sockets_;
  Thread& thread_;
};

// Decides whether the value of a closed handle is never used again (the default), or used for the
// very next socket, as the platform tends to do.
void ReuseSocketHandles(bool at_once);

SocketRef FindSocket(SOCKET s);  // null: not a socket

// Finds many sockets under one lock. While it lives, no socket is opened or closed.
class SocketFinder {
 public:
  SocketFinder();
  ~SocketFinder();
  SocketFinder(const SocketFinder&) = delete;
  SocketFinder& operator=(const SocketFinder&) = delete;

  SocketRef Find(SOCKET s) const;
};

SOCKET AddSocket(SocketRef socket);

int OpenSocket(int family, int type, int protocol, SOCKET* out);
int CloseSocket(SOCKET s);
int BindSocket(Socket& socket, const sockaddr* name, int name_size);
int ListenOn(Socket& socket, int backlog);
int AcceptOn(Socket& socket, sockaddr* name, int* name_size, SOCKET* out);
int ConnectTo(Socket& socket, const sockaddr* name, int name_size);
int ShutDown(Socket& socket, int how);
int NameOf(Socket& socket, sockaddr* name, int* name_size);
int PeerOf(Socket& socket, sockaddr* name, int* name_size);

// Checks whether a pending connect has ended, and returns the state.
Socket::Connect SettleConnect(Socket& socket);

// Waits for poll events. Returns 0 when there are some, WSAETIMEDOUT after timeout_ms (0: no
// limit), WSAEINTR if the socket is closed meanwhile.
int WaitForEvents(Socket& socket, short events, DWORD timeout_ms);

// Wakes every thread that polls the socket, so that it checks the socket's state again.
void WakeWaiters(Socket& socket);

// From socket_io.cpp.
int SendOn(Socket& socket, const WSABUF* buffers, DWORD count, DWORD flags, const sockaddr* to,
           int to_size, DWORD* sent);
int ReceiveOn(Socket& socket, const WSABUF* buffers, DWORD count, DWORD flags, sockaddr* from,
              int* from_size, DWORD* received);

// From socket_options.cpp.
int GetOption(Socket& socket, int level, int option, char* value, int* size);
int SetOption(Socket& socket, int level, int option, const char* value, int size);

// From select.cpp. *ready is the number of handles that stay in the sets.
int SelectSockets(fd_set* read, fd_set* write, fd_set* except, const timeval* timeout, int* ready);

// From errors.cpp.
int ErrorOf(int host_errno);

// Copies a host address to the caller, following Windows' rule for its size.
int DeliverName(const sockaddr_storage& from, unsigned from_size, sockaddr* name, int* name_size);

}  // namespace port
