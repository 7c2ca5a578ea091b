#include "port/posix/native.h"
//
#include "port/posix/sockets.h"

#include <cerrno>
#include <shared_mutex>
#include <unordered_map>

#include "port/posix/threads.h"

namespace port {
namespace {

// Handles are numbered by the port: the host reuses a descriptor at once, which would hide a use
// after close.
class SocketTable {
 public:
  static SocketTable& Instance() {
    static SocketTable& table = *new SocketTable;
    return table;
  }

  SOCKET Add(SocketRef socket) {
    std::unique_lock hold(lock_);
    SOCKET s = 0;
    if (reuse_ && !free_.empty()) {
      s = free_.back();
      free_.pop_back();
    } else {
      s = next_ += 4;
    }
    sockets_[s] = std::move(socket);
    return s;
  }

  std::shared_mutex& lock() { return lock_; }

  // Under the lock.
  SocketRef Find(SOCKET s) const {
    auto at = sockets_.find(s);
    return at == sockets_.end() ? nullptr : at->second;
  }

  SocketRef Remove(SOCKET s) {
    std::unique_lock hold(lock_);
    auto at = sockets_.find(s);
    if (at == sockets_.end()) return nullptr;
    SocketRef socket = std::move(at->second);
    sockets_.erase(at);
    if (reuse_) free_.push_back(s);
    return socket;
  }

  void SetReuse(bool reuse) {
    std::unique_lock hold(lock_);
    reuse_ = reuse;
    free_.clear();
  }

 private:
  std::shared_mutex lock_;
  std::unordered_map<SOCKET, SocketRef> sockets_;
  std::vector<SOCKET> free_;
  SOCKET next_ = 0x100;
  bool reuse_ = false;
};

bool IsAny(const sockaddr* name) {
  sockaddr_in in;
  std::memcpy(&in, name, sizeof in);
  return in.sin_addr.s_addr == 0;
}

uint16_t PortOf(const sockaddr* name) {
  sockaddr_in in;
  std::memcpy(&in, name, sizeof in);
  return in.sin_port;
}

int CheckName(const Socket& socket, const sockaddr* name, int name_size) {
  if (!name || name_size < static_cast<int>(sizeof(sockaddr_in))) return WSAEFAULT;
  return name->sa_family == socket.family ? 0 : WSAEAFNOSUPPORT;
}

// The selections of all threads. The lock is a leaf.
struct RunningSelections {
  std::mutex lock;
  std::vector<const Selecting*> running;
};

RunningSelections& Selections() {
  static auto& selections = *new RunningSelections;
  return selections;
}

// Registers a thread with the socket that it polls, for as long as it polls.
class Waiting {
 public:
  Waiting(Socket& socket, Thread& thread) : socket_(socket), thread_(thread) {
    std::lock_guard hold(socket_.lock);
    socket_.waiters.push_back(&thread_);
  }
  ~Waiting() {
    std::lock_guard hold(socket_.lock);
    auto at = std::find(socket_.waiters.begin(), socket_.waiters.end(), &thread_);
    if (at != socket_.waiters.end()) socket_.waiters.erase(at);
  }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

 private:
  Socket& socket_;
  Thread& thread_;
};

}  // namespace

Socket::~Socket() { ::close(fd); }

void ReuseSocketHandles(bool at_once) { SocketTable::Instance().SetReuse(at_once); }

SocketFinder::SocketFinder() { SocketTable::Instance().lock().lock_shared(); }

SocketFinder::~SocketFinder() { SocketTable::Instance().lock().unlock_shared(); }

SocketRef SocketFinder::Find(SOCKET s) const { return SocketTable::Instance().Find(s); }

SocketRef FindSocket(SOCKET s) { return SocketFinder().Find(s); }

SOCKET AddSocket(SocketRef socket) { return SocketTable::Instance().Add(std::move(socket)); }

void WakeWaiters(Socket& socket) {
  {
    std::lock_guard hold(socket.lock);
    for (Thread* thread : socket.waiters) thread->Wake();
  }
  std::lock_guard hold(Selections().lock);
  for (const Selecting* one : Selections().running) one->WakeIfSelected(socket);
}

Selecting::Selecting(const SelectedSockets& sockets, Thread& thread)
    : sockets_(sockets), thread_(thread) {
  std::lock_guard hold(Selections().lock);
  Selections().running.push_back(this);
}

Selecting::~Selecting() {
  std::lock_guard hold(Selections().lock);
  std::erase(Selections().running, this);
}

void Selecting::WakeIfSelected(const Socket& socket) const {
  const auto found = std::find_if(sockets_.begin(), sockets_.end(),
                                  [&](const SocketRef& one) { return one.get() == &socket; });
  if (found != sockets_.end()) thread_.Wake();
}

int DeliverName(const sockaddr_storage& from, unsigned from_size, sockaddr* name, int* name_size) {
  if (!name || !name_size) return WSAEFAULT;
  const int size = static_cast<int>(from_size);
  if (*name_size < size) return WSAEFAULT;
  std::memcpy(name, &from, from_size);
  *name_size = size;
  return 0;
}

int WaitForEvents(Socket& socket, short events, DWORD timeout_ms) {
  Thread& thread = Self();
  pollfd polled[2] = {{socket.fd, events, 0}, {thread.WakeFd(), POLLIN, 0}};
  const DWORD start = GetTickCount();
  while (true) {
    int ready = 0;
    {
      Waiting waiting(socket, thread);
      if (socket.closed) return WSAEINTR;
      if (!thread.told_to_end) {
        const DWORD passed = GetTickCount() - start;
        const DWORD left = timeout_ms > passed ? timeout_ms - passed : 0;
        ready = ::poll(polled, 2, timeout_ms == 0 ? -1 : static_cast<int>(left));
      }
    }
    EndIfTold();
    if (ready == 0) return WSAETIMEDOUT;
    if (ready > 0 && polled[1].revents) thread.DrainWakes();
    if (socket.closed) return WSAEINTR;
    if (ready > 0 && polled[0].revents) return 0;
  }
}

int OpenSocket(int family, int type, int protocol, SOCKET* out) {
  if (family == 0) family = AF_INET;
  if (family != AF_INET) return WSAEAFNOSUPPORT;
  if (type != SOCK_STREAM && type != SOCK_DGRAM && type != SOCK_RAW) return WSAESOCKTNOSUPPORT;
  if ((type == SOCK_STREAM && protocol == IPPROTO_UDP) ||
      (type == SOCK_DGRAM && protocol == IPPROTO_TCP))
    return WSAEPROTONOSUPPORT;
  const int fd = native::Socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
  if (fd < 0) return ErrorOf(errno);
  if (type == SOCK_DGRAM) {
    // Windows reports a peer's unreachable port to unconnected sockets, too.
    const int on = 1;
    native::SetSockOpt(fd, IPPROTO_IP, IP_RECVERR, &on, sizeof on);
  }
  *out = AddSocket(std::make_shared<Socket>(fd, family, type, protocol));
  return 0;
}

int CloseSocket(SOCKET s) {
  SocketRef socket = SocketTable::Instance().Remove(s);
  if (!socket) return WSAENOTSOCK;
  socket->closed = true;
  WakeWaiters(*socket);
  return 0;
}

int BindSocket(Socket& socket, const sockaddr* name, int name_size) {
  if (int error = CheckName(socket, name, name_size)) return error;
  if (socket.bound) return WSAEINVAL;
  if (native::Bind(socket.fd, name, sizeof(sockaddr_in)) != 0) return ErrorOf(errno);
  socket.bound = true;
  return 0;
}

int ListenOn(Socket& socket, int backlog) {
  if (!socket.stream()) return WSAEOPNOTSUPP;
  if (!socket.bound) return WSAEINVAL;
  if (SettleConnect(socket) == Socket::Connect::kDone) return WSAEISCONN;
  const int places = std::clamp(backlog, 1, native::kMaxBacklog);
  if (native::Listen(socket.fd, places) != 0) return ErrorOf(errno);
  socket.listening = true;
  WakeWaiters(socket);
  return 0;
}

int AcceptOn(Socket& socket, sockaddr* name, int* name_size, SOCKET* out) {
  if (!socket.stream()) return WSAEOPNOTSUPP;
  if (!socket.listening) return WSAEINVAL;
  if (name && (!name_size || *name_size < static_cast<int>(sizeof(sockaddr_in)))) return WSAEFAULT;
  while (true) {
    sockaddr_storage peer = {};
    socklen_t peer_size = sizeof peer;
    const int fd = native::Accept(socket.fd, reinterpret_cast<sockaddr*>(&peer), &peer_size);
    if (fd >= 0) {
      auto accepted = std::make_shared<Socket>(fd, socket.family, socket.type, socket.protocol);
      accepted->bound = true;
      accepted->connect = Socket::Connect::kDone;
      accepted->non_blocking = socket.non_blocking.load();
      accepted->recv_timeout_ms = socket.recv_timeout_ms.load();
      accepted->send_timeout_ms = socket.send_timeout_ms.load();
      accepted->oob_inline = socket.oob_inline.load();
      if (name) DeliverName(peer, peer_size, name, name_size);
      *out = AddSocket(std::move(accepted));
      return 0;
    }
    if (errno == EINTR || errno == ECONNABORTED) continue;
    if (errno != EAGAIN || socket.non_blocking) return ErrorOf(errno);
    if (int error = WaitForEvents(socket, POLLIN, 0)) return error;
  }
}

namespace {

// A datagram socket's connect only sets the peer; the zero address removes it.
int NamePeer(Socket& socket, const sockaddr* name) {
  sockaddr nobody = {};
  nobody.sa_family = AF_UNSPEC;
  const bool forget = IsAny(name);
  const int result = forget ? native::Connect(socket.fd, &nobody, sizeof nobody)
                            : native::Connect(socket.fd, name, sizeof(sockaddr_in));
  if (result != 0) return ErrorOf(errno);
  std::lock_guard hold(socket.lock);
  socket.connect = forget ? Socket::Connect::kNone : Socket::Connect::kDone;
  socket.bound = true;
  return 0;
}

int TryConnect(int fd, const sockaddr* name) {
  return native::Connect(fd, name, sizeof(sockaddr_in)) == 0 ? 0 : errno;
}

void SetConnect(Socket& socket, Socket::Connect state, int error) {
  {
    std::lock_guard hold(socket.lock);
    socket.connect = state;
    socket.pending_error = error;
  }
  WakeWaiters(socket);
}

int WaitForConnect(Socket& socket) {
  while (true) {
    const auto state = SettleConnect(socket);
    if (state == Socket::Connect::kDone) return 0;
    if (state == Socket::Connect::kFailed) {
      std::lock_guard hold(socket.lock);
      const int error = socket.pending_error;
      socket.connect = Socket::Connect::kNone;
      socket.pending_error = 0;
      return error;
    }
    if (int error = WaitForEvents(socket, POLLOUT, 0)) return error;
  }
}

}  // namespace

int ConnectTo(Socket& socket, const sockaddr* name, int name_size) {
  if (int error = CheckName(socket, name, name_size)) return error;
  if (!socket.stream()) return NamePeer(socket, name);
  if (socket.listening) return WSAEINVAL;
  const auto state = SettleConnect(socket);
  if (state == Socket::Connect::kPending) return WSAEALREADY;
  if (state == Socket::Connect::kDone) return WSAEISCONN;
  if (IsAny(name) || PortOf(name) == 0) return WSAEADDRNOTAVAIL;
  int number = TryConnect(socket.fd, name);
  if (number == ECONNABORTED) number = TryConnect(socket.fd, name);  // left by an earlier refusal
  if (number != 0 && number != EINPROGRESS && number != ECONNREFUSED) return ErrorOf(number);
  socket.bound = true;
  // On loopback the host may know the outcome at once. On a non-blocking socket, Windows never
  // returns it from this call, but reports it through select.
  const auto next = number == 0             ? Socket::Connect::kDone
                    : number == EINPROGRESS ? Socket::Connect::kPending
                                            : Socket::Connect::kFailed;
  SetConnect(socket, next, next == Socket::Connect::kFailed ? ErrorOf(number) : 0);
  return socket.non_blocking ? WSAEWOULDBLOCK : WaitForConnect(socket);
}

Socket::Connect SettleConnect(Socket& socket) {
  const Socket::Connect settled = socket.connect;
  if (settled != Socket::Connect::kPending) return settled;
  std::lock_guard hold(socket.lock);
  if (socket.connect != Socket::Connect::kPending) return socket.connect;
  pollfd polled = {socket.fd, POLLOUT, 0};
  if (::poll(&polled, 1, 0) <= 0) return socket.connect;
  int number = 0;
  socklen_t size = sizeof number;
  native::GetSockOpt(socket.fd, native::kSolSocket, native::kError, &number, &size);
  socket.connect = number == 0 ? Socket::Connect::kDone : Socket::Connect::kFailed;
  socket.pending_error = ErrorOf(number);
  return socket.connect;
}

int ShutDown(Socket& socket, int how) {
  if (how < SD_RECEIVE || how > SD_BOTH) return WSAEINVAL;
  if (SettleConnect(socket) != Socket::Connect::kDone) return WSAENOTCONN;
  if (how != SD_SEND) socket.shut_recv = true;
  if (how != SD_RECEIVE) socket.shut_send = true;
  // The only difference: after SHUT_RD and close, the host would answer a sender with a reset.
  if (native::Shutdown(socket.fd, how) != 0 && errno != ENOTCONN) return ErrorOf(errno);
  WakeWaiters(socket);
  return 0;
}

int NameOf(Socket& socket, sockaddr* name, int* name_size) {
  if (!socket.bound) return WSAEINVAL;
  sockaddr_storage own = {};
  socklen_t size = sizeof own;
  if (native::GetSockName(socket.fd, reinterpret_cast<sockaddr*>(&own), &size) != 0)
    return ErrorOf(errno);
  return DeliverName(own, size, name, name_size);
}

int PeerOf(Socket& socket, sockaddr* name, int* name_size) {
  if (SettleConnect(socket) != Socket::Connect::kDone) return WSAENOTCONN;
  sockaddr_storage peer = {};
  socklen_t size = sizeof peer;
  if (native::GetPeerName(socket.fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0)
    return ErrorOf(errno);
  return DeliverName(peer, size, name, name_size);
}

}  // namespace port
