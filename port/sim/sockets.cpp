#include "port/sim/sockets.h"

#include <algorithm>

#include "port/sim/faults.h"
#include "port/sim/icmp.h"

namespace sim {
namespace {

constexpr size_t kMaxDatagram = 65507;
constexpr int kMaxBacklog = 200;  // the value of SOMAXCONN

// Waits for the condition. Returns 0, WSAEINTR if the socket was closed meanwhile, or WSAETIMEDOUT.
int WaitUntil(Socket& socket, const char* call, DWORD timeout_ms,
              const std::function<bool()>& ready) {
  Scheduler& scheduler = TheWorld().scheduler();
  Wait wait;
  wait.ready = [&] { return socket.closed || ready(); };
  wait.says = [call, &socket] { return Format("%s on socket %u", call, socket.handle); };
  if (timeout_ms != 0 && timeout_ms != INFINITE)
    wait.deadline = scheduler.DeadlineIn(Micros{timeout_ms} * 1000);
  const bool in_time = scheduler.Block(wait);
  if (socket.closed) return WSAEINTR;
  return in_time ? 0 : WSAETIMEDOUT;
}

Protocol PortSpace(const Socket& socket) {
  if (socket.stream()) return Protocol::kTcp;
  return socket.type == SOCK_RAW ? Protocol::kIcmp : Protocol::kUdp;
}

// Claims an address for a socket that has none. Port 0 takes the next free one.
int Claim(Socket& socket, Address address) {
  auto binding = std::make_shared<Binding>();
  binding->protocol = PortSpace(socket);
  binding->share = socket.share;
  binding->exclusive = socket.exclusive;
  if (binding->protocol != Protocol::kIcmp) {
    if (address.port == 0) address.port = socket.stack().EphemeralPort(binding->protocol);
    if (address.port == 0) return WSAENOBUFS;
    binding->local = address;
    if (socket.stack().Conflicts(*binding)) return WSAEADDRINUSE;
  }
  binding->local = address;
  socket.local = address;
  socket.binding = binding;
  socket.stack().Claim(binding);
  if (socket.datagrams) {
    socket.datagrams->local = address;
    socket.stack().Open(socket.datagrams);
  }
  return 0;
}

// A loopback address reaches its own host only.
bool CannotReach(const Socket& socket, const Address& to) {
  return IsLoopback(socket.local.ip) && !socket.stack().IsLocal(to.ip);
}

void Detach(Socket& socket) {
  socket.closed = true;
  if (socket.binding) socket.stack().Disclaim(socket.binding);
  if (socket.datagrams) socket.stack().Close(socket.datagrams);
  if (socket.listener) socket.stack().StopListening(socket.listener);
}

}  // namespace

// --- states ---------------------------------------------------------------------------------

void Socket::Settle() {
  if (!connecting) return;
  if (tcp->open()) {
    connecting = false;
    return;
  }
  if (!tcp->dead()) return;
  connecting = false;
  connect_failed = true;
  pending_error = tcp->error();
  tcp.reset();
}

bool Socket::CanRead() const {
  if (listener) return !listener->ready.empty();
  if (datagrams) return binding && (!datagrams->queue.empty() || datagrams->unreachable);
  if (!tcp || (connecting && !tcp->open())) return false;
  return tcp->unread() > 0 || tcp->at_end() || tcp->dead() || receive_shut;
}

bool Socket::CanWrite() const {
  if (datagrams) return true;
  if (!tcp || (connecting && !tcp->open())) return false;
  return tcp->dead() || send_shut || tcp->room() > 0;
}

bool Socket::HasException() const {
  if (connect_failed || (connecting && tcp->dead())) return true;
  return tcp && !tcp->dead() && tcp->urgent_waits();
}

// --- the table ------------------------------------------------------------------------------

SOCKET SocketTable::Add(SocketRef socket) {
  if (reuse_ && !closed_.empty()) {
    socket->handle = closed_.back();
    closed_.pop_back();
  } else {
    socket->handle = next_;
    next_ += 4;
  }
  const SOCKET handle = socket->handle;
  sockets_[handle] = std::move(socket);
  return handle;
}

SocketRef SocketTable::Find(SOCKET handle, const Process& process) const {
  const auto at = sockets_.find(handle);
  return at == sockets_.end() || at->second->process != &process ? nullptr : at->second;
}

size_t SocketTable::CountOf(const Process& process) const {
  return static_cast<size_t>(
      std::count_if(sockets_.begin(), sockets_.end(),
                    [&](const auto& entry) { return entry.second->process == &process; }));
}

std::string SocketTable::ListOf(const Process& process) const {
  std::string text;
  for (const auto& [handle, socket] : sockets_) {
    if (socket->process != &process) continue;
    text += Format("%u of type %d, ", handle, socket->type) + ToText(socket->local) + " > " +
            ToText(socket->peer) + (socket->listener ? ", listens" : "") + "\n";
  }
  return text;
}

void SocketTable::Remove(SOCKET handle) {
  constexpr size_t kMostKept = 4096;  // more than a world has sockets
  if (sockets_.erase(handle) == 0) return;
  closed_.push_back(handle);
  if (closed_.size() > kMostKept) closed_.pop_front();
}

void SocketTable::CloseAllOf(Process& process) {
  for (auto at = sockets_.begin(); at != sockets_.end();) {
    const SocketRef socket = at->second;
    if (socket->process != &process) {
      ++at;
      continue;
    }
    Detach(*socket);
    if (socket->tcp) socket->tcp->Release(true);
    at = sockets_.erase(at);
  }
}

// --- making and naming ----------------------------------------------------------------------

int OpenSocket(Process& process, int family, int type, int protocol, SOCKET* out) {
  if (family != AF_INET) return WSAEAFNOSUPPORT;
  if (type != SOCK_STREAM && type != SOCK_DGRAM && type != SOCK_RAW) return WSAESOCKTNOSUPPORT;
  const int natural = type == SOCK_STREAM  ? IPPROTO_TCP
                      : type == SOCK_DGRAM ? IPPROTO_UDP
                                           : IPPROTO_ICMP;
  if (protocol == 0 && type != SOCK_RAW) protocol = natural;
  if (protocol != natural) return WSAEPROTONOSUPPORT;
  auto socket = std::make_shared<Socket>();
  socket->process = &process;
  socket->type = type;
  socket->protocol = protocol;
  if (type != SOCK_STREAM) {
    socket->datagrams = std::make_shared<DatagramPort>();
    socket->datagrams->protocol = PortSpace(*socket);
  }
  *out = TheWorld().sockets().Add(socket);
  return 0;
}

int CloseSocket(Socket& socket) {
  if (socket.stream() && socket.tcp && socket.linger_on && socket.linger_seconds > 0 &&
      !socket.nonblocking && socket.tcp->unread() == 0) {
    socket.tcp->FinishWriting();
    WaitUntil(socket, "closesocket", static_cast<DWORD>(socket.linger_seconds) * 1000,
              [&] { return socket.tcp->dead() || socket.tcp->all_acknowledged(); });
    if (socket.closed) return WSAENOTSOCK;
  }
  const bool in_time = socket.tcp && (socket.tcp->dead() || socket.tcp->all_acknowledged());
  const bool abort =
      socket.linger_on && (socket.linger_seconds == 0 || (!socket.nonblocking && !in_time));
  Detach(socket);
  if (socket.tcp) socket.tcp->Release(abort);
  TheWorld().sockets().Remove(socket.handle);
  return 0;
}

int Bind(Socket& socket, const Address& address) {
  if (socket.binding) return WSAEINVAL;
  if (address.ip != 0 && !socket.stack().IsLocal(address.ip)) return WSAEADDRNOTAVAIL;
  return Claim(socket, address);
}

int Listen(Socket& socket, int backlog) {
  if (!socket.stream()) return WSAEOPNOTSUPP;
  socket.Settle();
  if (socket.tcp) return WSAEISCONN;
  if (!socket.binding) return WSAEINVAL;
  if (socket.listener) return 0;
  const int places = std::clamp(backlog, 1, kMaxBacklog);
  socket.listener =
      std::make_shared<TcpListener>(socket.local, static_cast<size_t>(places), socket.settings);
  socket.stack().Listen(socket.listener);
  return 0;
}

int Accept(Socket& socket, SOCKET* out, Address* peer) {
  if (!socket.stream()) return WSAEOPNOTSUPP;
  if (!socket.listener) return WSAEINVAL;
  const auto listener = socket.listener;
  if (listener->ready.empty()) {
    if (socket.nonblocking) return WSAEWOULDBLOCK;
    const int error = WaitUntil(socket, "accept", 0, [&] { return !listener->ready.empty(); });
    if (error != 0) return error;
  }
  auto accepted = std::make_shared<Socket>();
  accepted->process = socket.process;
  accepted->type = socket.type;
  accepted->protocol = socket.protocol;
  accepted->nonblocking = socket.nonblocking;
  accepted->settings = socket.settings;
  accepted->linger_on = socket.linger_on;
  accepted->linger_seconds = socket.linger_seconds;
  accepted->send_timeout_ms = socket.send_timeout_ms;
  accepted->receive_timeout_ms = socket.receive_timeout_ms;
  accepted->plain_options = socket.plain_options;
  accepted->tcp = listener->ready.front();
  listener->ready.pop_front();
  accepted->tcp->SetSettings(accepted->settings);
  accepted->local = accepted->tcp->local();
  accepted->peer = *peer = accepted->tcp->remote();
  *out = TheWorld().sockets().Add(accepted);
  return 0;
}

namespace {

int ConnectDatagrams(Socket& socket, const Address& address) {
  const bool needs_port = socket.type != SOCK_RAW;
  if (address.ip == 0 || (needs_port && address.port == 0)) {
    socket.peer = socket.datagrams->peer = {};  // dissolves the connection
    if (socket.binding) socket.local = socket.datagrams->local = socket.binding->local;
    return 0;
  }
  if (CannotReach(socket, address)) return WSAEADDRNOTAVAIL;
  if (!socket.binding)
    if (const int error = Claim(socket, {0, 0})) return error;
  if (socket.local.ip == 0) socket.local.ip = socket.stack().SourceFor(address.ip);
  socket.datagrams->local.ip = socket.local.ip;
  socket.peer = socket.datagrams->peer = address;
  return 0;
}

}  // namespace

int Connect(Socket& socket, const Address& address) {
  socket.Settle();
  if (socket.datagrams) return ConnectDatagrams(socket, address);
  if (socket.listener) return WSAEINVAL;
  if (socket.connecting) return WSAEALREADY;
  if (socket.tcp) return WSAEISCONN;
  if (address.ip == 0 || address.port == 0) return WSAEADDRNOTAVAIL;
  if (address.ip == INADDR_BROADCAST) return WSAENETUNREACH;
  if (CannotReach(socket, address)) return WSAEADDRNOTAVAIL;
  if (!socket.binding)
    if (const int error = Claim(socket, {0, 0})) return error;
  Address local = socket.local;
  if (local.ip == 0) local.ip = socket.stack().SourceFor(address.ip);
  auto tcp = socket.stack().Connect(local, address, socket.settings);
  if (!tcp) return WSAEADDRINUSE;
  socket.tcp = tcp;
  socket.local = local;
  socket.peer = address;
  socket.connecting = true;
  socket.connect_failed = false;
  socket.pending_error = 0;
  if (socket.nonblocking) return WSAEWOULDBLOCK;
  if (const int error = WaitUntil(socket, "connect", 0, [&] { return !tcp->connecting(); }))
    return error;
  socket.Settle();
  return std::exchange(socket.pending_error, 0);
}

int Shutdown(Socket& socket, int how) {
  socket.Settle();
  if (how < SD_RECEIVE || how > SD_BOTH) return WSAEINVAL;
  const bool connected = socket.stream() ? socket.tcp && !socket.connecting : socket.peer.ip != 0;
  if (!connected) return WSAENOTCONN;
  if (how != SD_SEND) {
    socket.receive_shut = true;
    if (socket.tcp) socket.tcp->StopReading();
  }
  if (how != SD_RECEIVE) {
    socket.send_shut = true;
    if (socket.tcp) socket.tcp->FinishWriting();
  }
  return 0;
}

int LocalName(const Socket& socket, Address* out) {
  if (!socket.binding && !socket.tcp) return WSAEINVAL;
  *out = socket.local;
  return 0;
}

int PeerName(Socket& socket, Address* out) {
  socket.Settle();
  const bool connected = socket.stream() ? socket.tcp && !socket.connecting : socket.peer.ip != 0;
  if (!connected) return WSAENOTCONN;
  *out = socket.peer;
  return 0;
}

// --- moving bytes ---------------------------------------------------------------------------

namespace {

int StreamUnusable(Socket& socket) {
  socket.Settle();
  if (!socket.tcp || socket.connecting) return WSAENOTCONN;
  return 0;
}

// Every call on a failed connection returns the same error.
int DeathOf(const TcpConnection& tcp) { return tcp.error() != 0 ? tcp.error() : WSAECONNABORTED; }

int SendStream(Socket& socket, std::string_view data, bool urgent, DWORD* sent) {
  if (const int error = StreamUnusable(socket)) return error;
  const auto tcp = socket.tcp;
  if (tcp->dead()) return DeathOf(*tcp);
  if (socket.send_shut) return WSAESHUTDOWN;
  Faults& faults = TheWorld().faults();
  const size_t limit = faults.short_send.Hit() ? faults.short_send_bytes : data.size();
  const std::string_view wanted = data.substr(0, limit);
  size_t done = tcp->Write(wanted, urgent);
  if (socket.nonblocking) {
    *sent = static_cast<DWORD>(done);
    return done == 0 && !data.empty() ? WSAEWOULDBLOCK : 0;
  }
  while (done < wanted.size()) {
    const int error = WaitUntil(socket, "send", socket.send_timeout_ms,
                                [&] { return tcp->dead() || tcp->room() > 0 || socket.send_shut; });
    if (error != 0) return error;
    if (tcp->dead()) return DeathOf(*tcp);
    if (socket.send_shut) return WSAESHUTDOWN;
    done += tcp->Write(wanted.substr(done), urgent);
  }
  *sent = static_cast<DWORD>(done);
  return 0;
}

int ReceiveStream(Socket& socket, char* out, size_t size, bool peek, DWORD* received) {
  if (const int error = StreamUnusable(socket)) return error;
  if (socket.receive_shut) return WSAESHUTDOWN;
  const auto tcp = socket.tcp;
  const auto settled = [&] {
    return tcp->unread() > 0 || tcp->at_end() || tcp->dead() || socket.receive_shut;
  };
  if (!settled()) {
    if (socket.nonblocking) return WSAEWOULDBLOCK;
    const int error = WaitUntil(socket, "recv", socket.receive_timeout_ms, settled);
    if (error != 0) return error;
  }
  if (tcp->dead()) return DeathOf(*tcp);
  if (socket.receive_shut) return WSAESHUTDOWN;
  *received = static_cast<DWORD>(tcp->Read(out, size, peek));
  return 0;
}

int ReceiveUrgent(Socket& socket, char* out, size_t size, bool peek, DWORD* received) {
  if (const int error = StreamUnusable(socket)) return error;
  if (socket.settings.oob_inline) return WSAEINVAL;
  if (socket.receive_shut) return WSAESHUTDOWN;
  const auto tcp = socket.tcp;
  const auto settled = [&] { return tcp->urgent_waits() || tcp->dead() || tcp->at_end(); };
  if (!settled()) {
    if (socket.nonblocking) return WSAEWOULDBLOCK;
    const int error = WaitUntil(socket, "recv", socket.receive_timeout_ms, settled);
    if (error != 0) return error;
  }
  if (tcp->dead()) return DeathOf(*tcp);
  if (!tcp->urgent_waits() || size == 0) return 0;
  *out = *tcp->ReadUrgent(peek);
  *received = 1;
  return 0;
}

int ReceiveDatagram(Socket& socket, char* out, size_t size, bool peek, DWORD* received,
                    std::optional<Address>* from) {
  if (!socket.binding) return WSAEINVAL;
  if (socket.receive_shut) return WSAESHUTDOWN;
  DatagramPort& port = *socket.datagrams;
  const auto settled = [&] { return !port.queue.empty() || port.unreachable; };
  if (!settled()) {
    if (socket.nonblocking) return WSAEWOULDBLOCK;
    const int error = WaitUntil(socket, "recvfrom", socket.receive_timeout_ms, settled);
    if (error != 0) return error;
  }
  if (std::exchange(port.unreachable, false)) return WSAECONNRESET;
  const DatagramPort::Datagram& first = port.queue.front();
  const size_t whole = first.data.size();
  const size_t n = std::min(size, whole);
  if (n > 0) std::memcpy(out, first.data.data(), n);
  *received = static_cast<DWORD>(n);
  *from = first.from;
  if (!peek) {
    port.bytes -= whole;
    port.queue.pop_front();
  }
  return n < whole ? WSAEMSGSIZE : 0;
}

}  // namespace

int Send(Socket& socket, std::string_view data, bool urgent, DWORD* sent) {
  if (socket.stream()) return SendStream(socket, data, urgent, sent);
  if (urgent) return WSAEOPNOTSUPP;
  return SendTo(socket, std::string(data), std::nullopt, sent);
}

int SendTo(Socket& socket, const std::string& data, const std::optional<Address>& to, DWORD* sent) {
  if (socket.stream()) return SendStream(socket, data, false, sent);
  if (socket.send_shut) return WSAESHUTDOWN;
  if (!to && socket.peer.ip == 0) return WSAENOTCONN;
  const Address target = to.value_or(socket.peer);
  const bool raw = socket.type == SOCK_RAW;
  if (target.ip == 0 || (!raw && target.port == 0)) return WSAEADDRNOTAVAIL;
  if (data.size() > kMaxDatagram) return WSAEMSGSIZE;
  if (!socket.binding)
    if (const int error = Claim(socket, {0, 0})) return error;
  if (CannotReach(socket, target)) return WSAEADDRNOTAVAIL;
  Address source = socket.local;
  if (source.ip == 0) source.ip = socket.stack().SourceFor(target.ip);
  if (raw)
    socket.stack().SendIcmp(source, target, data);
  else
    socket.stack().SendUdp(source, target, data);
  *sent = static_cast<DWORD>(data.size());
  return 0;
}

int Receive(Socket& socket, char* out, size_t size, bool peek, bool urgent, DWORD* received,
            std::optional<Address>* from) {
  *received = 0;
  if (urgent)
    return socket.stream() ? ReceiveUrgent(socket, out, size, peek, received) : WSAEOPNOTSUPP;
  if (socket.stream()) return ReceiveStream(socket, out, size, peek, received);
  return ReceiveDatagram(socket, out, size, peek, received, from);
}

int PendingBytes(const Socket& socket, DWORD* out) {
  if (socket.datagrams) {
    *out = static_cast<DWORD>(socket.datagrams->bytes);
  } else {
    *out = socket.tcp ? static_cast<DWORD>(socket.tcp->unread()) : 0;
  }
  return 0;
}

}  // namespace sim
