// A program with one completion port, like event-loop runtimes. It looks up ConnectEx once, from a
// socket that it then closes, and uses it for all its connections. It also uses the other extension
// functions: AcceptEx with its first bytes, TransmitFile, DisconnectEx. The "module" lines print
// the module of each function; only these may differ with the library.
#include "probe.h"

#include <mswsock.h>

#include <vector>

namespace {

constexpr int kConnections = 40;
constexpr DWORD kPatienceMs = 30000;
constexpr DWORD kFileSize = 300000;
constexpr int kNameRoom = sizeof(sockaddr_in) + 16;

HANDLE g_port = nullptr;

template <class Function>
Function Extension(SOCKET s, GUID id) {
  Function function = nullptr;
  DWORD bytes = 0;
  const int result = WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &function,
                              sizeof function, &bytes, nullptr, nullptr);
  if (result != 0) probe::SayResult("WSAIoctl", result);
  return function;
}

void SayModule(const char* name, SOCKET s, GUID id) {
  void* const function = Extension<void*>(s, id);
  HMODULE module = nullptr;
  char path[MAX_PATH] = {};
  GetModuleHandleExA(
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
      static_cast<const char*>(function), &module);
  GetModuleFileNameA(module, path, sizeof path - 1);
  const char* const file = std::strrchr(path, '\\');
  probe::Say("module of %s: %s", name, module != nullptr && file != nullptr ? file + 1 : "none");
}

void SayModules() {
  const SOCKET s = probe::NewStream();
  SayModule("ConnectEx", s, WSAID_CONNECTEX);
  SayModule("AcceptEx", s, WSAID_ACCEPTEX);
  SayModule("TransmitFile", s, WSAID_TRANSMITFILE);
  SayModule("DisconnectEx", s, WSAID_DISCONNECTEX);
  SayModule("GetAcceptExSockaddrs", s, WSAID_GETACCEPTEXSOCKADDRS);
  closesocket(s);
}

// Whether a call has been accepted. The platform may complete it at once or return "pending".
bool IsTaken(BOOL result) { return result || WSAGetLastError() == WSA_IO_PENDING; }

SOCKET BoundStream() {
  const SOCKET s = probe::NewStream();
  sockaddr_in any = probe::Address("0.0.0.0", 0);
  bind(s, reinterpret_cast<sockaddr*>(&any), sizeof any);
  return s;
}

bool SeesTheServer(SOCKET s) {
  sockaddr_in peer = {};
  int size = sizeof peer;
  setsockopt(s, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0);
  return getpeername(s, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
         peer.sin_addr.s_addr == probe::g_server.sin_addr.s_addr &&
         peer.sin_port == probe::g_server.sin_port;
}

struct Connection {
  OVERLAPPED overlapped = {};
  SOCKET socket = INVALID_SOCKET;
  enum { kConnecting, kSending, kReceiving, kDisconnecting, kDone, kFailed } state = kConnecting;
  char message[32] = {};
  char echo[32] = {};
  DWORD echoed = 0;
  DWORD size() const { return static_cast<DWORD>(std::strlen(message)); }
};

struct Counts {
  int connected = 0, peers = 0, echoed = 0, disconnected = 0, failed = 0;
};

class Loop {
 public:
  Loop(LPFN_CONNECTEX connect_ex, LPFN_DISCONNECTEX disconnect_ex)
      : connect_ex_(connect_ex), disconnect_ex_(disconnect_ex), connections_(kConnections) {}

  void Run() {
    for (int i = 0; i < kConnections; ++i) Connect(&connections_[static_cast<size_t>(i)], i);
    int open = kConnections - counts_.failed;
    while (open > 0) {
      DWORD bytes = 0;
      ULONG_PTR key = 0;
      OVERLAPPED* done = nullptr;
      const BOOL good = GetQueuedCompletionStatus(g_port, &bytes, &key, &done, kPatienceMs);
      if (done == nullptr) break;
      auto* const c = reinterpret_cast<Connection*>(key);
      if (!good || !Step(c, bytes)) Fail(c);
      if (c->state >= Connection::kDone) --open;
    }
    probe::Say("loop: %d connected, %d see their server, %d echoed, %d disconnected, %d failed",
               counts_.connected, counts_.peers, counts_.echoed, counts_.disconnected,
               counts_.failed);
    for (const Connection& c : connections_) closesocket(c.socket);
  }

 private:
  // Every second connection sends its message with the connect.
  void Connect(Connection* c, int number) {
    c->socket = BoundStream();
    std::snprintf(c->message, sizeof c->message, "message of connection %d", number);
    CreateIoCompletionPort(reinterpret_cast<HANDLE>(c->socket), g_port,
                           reinterpret_cast<ULONG_PTR>(c), 0);
    const bool with_data = number % 2 == 0;
    DWORD sent = 0;
    if (!IsTaken(connect_ex_(c->socket, probe::Server(), sizeof probe::g_server,
                             with_data ? c->message : nullptr, with_data ? c->size() : 0, &sent,
                             &c->overlapped))) {
      Fail(c);
    }
  }

  // Continues after a step that transferred that many bytes.
  bool Step(Connection* c, DWORD bytes) {
    switch (c->state) {
      case Connection::kConnecting:
        ++counts_.connected;
        if (SeesTheServer(c->socket)) ++counts_.peers;
        return bytes != 0 ? Receive(c) : Send(c);
      case Connection::kSending:
        return bytes == c->size() && Receive(c);
      case Connection::kReceiving:
        c->echoed += bytes;
        if (bytes == 0) return false;
        if (c->echoed < c->size()) return Receive(c);
        if (std::strcmp(c->message, c->echo) == 0) ++counts_.echoed;
        return Disconnect(c);
      case Connection::kDisconnecting:
        ++counts_.disconnected;
        c->state = Connection::kDone;
        return true;
      default:
        return false;
    }
  }

  static bool Send(Connection* c) {
    c->state = Connection::kSending;
    c->overlapped = {};
    WSABUF buffer = {c->size(), c->message};
    return IsTaken(WSASend(c->socket, &buffer, 1, nullptr, 0, &c->overlapped, nullptr) == 0);
  }
  static bool Receive(Connection* c) {
    c->state = Connection::kReceiving;
    c->overlapped = {};
    WSABUF buffer = {c->size() - c->echoed, c->echo + c->echoed};
    DWORD flags = 0;
    return IsTaken(WSARecv(c->socket, &buffer, 1, nullptr, &flags, &c->overlapped, nullptr) == 0);
  }
  bool Disconnect(Connection* c) {
    c->state = Connection::kDisconnecting;
    c->overlapped = {};
    return IsTaken(disconnect_ex_(c->socket, &c->overlapped, 0, 0));
  }
  void Fail(Connection* c) {
    probe::Say("step %d failed with %lu", c->state, GetLastError());
    c->state = Connection::kFailed;
    ++counts_.failed;
  }

  const LPFN_CONNECTEX connect_ex_;
  const LPFN_DISCONNECTEX disconnect_ex_;
  std::vector<Connection> connections_;
  Counts counts_;
};

void Await(const char* what, SOCKET s, BOOL result, OVERLAPPED* overlapped) {
  DWORD bytes = 0;
  DWORD flags = 0;
  const bool taken = IsTaken(result);
  const BOOL done = taken && WSAGetOverlappedResult(s, overlapped, &bytes, TRUE, &flags);
  probe::Say("%s: %d, %d, %lu bytes", what, taken, done, bytes);
}

struct Event {
  Event() { overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr); }
  ~Event() { CloseHandle(overlapped.hEvent); }
  OVERLAPPED overlapped = {};
};

HANDLE PatternFile(const std::string& content) {
  wchar_t folder[MAX_PATH], path[MAX_PATH];
  GetTempPathW(MAX_PATH, folder);
  GetTempFileNameW(folder, L"vyr", 0, path);
  const HANDLE file = CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  DWORD written = 0;
  WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr);
  SetFilePointer(file, 0, nullptr, FILE_BEGIN);
  return file;
}

// Transmits a file between a head and a tail, while the server echoes it.
void Transmit(LPFN_CONNECTEX connect_ex, LPFN_DISCONNECTEX disconnect_ex) {
  const SOCKET s = BoundStream();
  const auto transmit_file = Extension<LPFN_TRANSMITFILE>(s, WSAID_TRANSMITFILE);
  Event connected, transmitted, disconnected;
  Await("ConnectEx", s,
        connect_ex(s, probe::Server(), sizeof probe::g_server, nullptr, 0, nullptr,
                   &connected.overlapped),
        &connected.overlapped);
  probe::Say("sees its server: %d", SeesTheServer(s));
  std::string content;
  for (unsigned i = 0; content.size() < kFileSize; ++i) content += static_cast<char>(i * i >> 3);
  const HANDLE file = PatternFile(content);
  char head[] = "head", tail[] = "tail";
  TRANSMIT_FILE_BUFFERS around = {head, 4, tail, 4};
  const BOOL result = transmit_file(s, file, 0, 0, &transmitted.overlapped, &around, 0);
  const bool taken = IsTaken(result);
  const std::string echo = taken ? probe::ReceiveAll(s, kFileSize + 8) : "";
  probe::Say("transmitted: %d, came back whole: %d", taken, echo == "head" + content + "tail");
  WSASetLastError(WSA_IO_PENDING);
  Await("TransmitFile", s, result, &transmitted.overlapped);
  Await("DisconnectEx", s, disconnect_ex(s, &disconnected.overlapped, 0, 0),
        &disconnected.overlapped);
  char rest[8];
  probe::SayResult("recv after it", recv(s, rest, sizeof rest, 0));
  closesocket(s);
  CloseHandle(file);
}

// Accepts a connection of our own together with its first bytes.
void Accept(LPFN_CONNECTEX connect_ex) {
  sockaddr_in address;
  const SOCKET listener = probe::Listener(&address);
  const auto accept_ex = Extension<LPFN_ACCEPTEX>(listener, WSAID_ACCEPTEX);
  const auto names = Extension<LPFN_GETACCEPTEXSOCKADDRS>(listener, WSAID_GETACCEPTEXSOCKADDRS);
  const SOCKET accepted = probe::NewStream();
  const SOCKET client = BoundStream();
  Event accepting, connecting;
  char buffer[16 + 2 * kNameRoom];
  DWORD bytes = 0;
  const BOOL result = accept_ex(listener, accepted, buffer, 16, kNameRoom, kNameRoom, &bytes,
                                &accepting.overlapped);
  char hello[] = "hello";
  DWORD sent = 0;
  Await("ConnectEx to ourselves", client,
        connect_ex(client, reinterpret_cast<sockaddr*>(&address), sizeof address, hello, 5, &sent,
                   &connecting.overlapped),
        &connecting.overlapped);
  WSASetLastError(WSA_IO_PENDING);
  Await("AcceptEx", listener, result, &accepting.overlapped);
  probe::Say("came with it: %.5s", buffer);
  sockaddr* local = nullptr;
  sockaddr* remote = nullptr;
  int local_size = 0, remote_size = 0;
  names(buffer, 16, kNameRoom, kNameRoom, &local, &local_size, &remote, &remote_size);
  const auto* const here = reinterpret_cast<const sockaddr_in*>(local);
  probe::Say("accepted at the listener: %d",
             here != nullptr && here->sin_port == address.sin_port && remote != nullptr);
  closesocket(client);
  closesocket(accepted);
  closesocket(listener);
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  SayModules();
  const SOCKET first = probe::NewStream();
  const auto connect_ex = Extension<LPFN_CONNECTEX>(first, WSAID_CONNECTEX);
  const auto disconnect_ex = Extension<LPFN_DISCONNECTEX>(first, WSAID_DISCONNECTEX);
  closesocket(first);
  g_port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1);
  Loop(connect_ex, disconnect_ex).Run();
  Transmit(connect_ex, disconnect_ex);
  Accept(connect_ex);
  return probe::End();
}
