// Sending and receiving.
#include "port/posix/native.h"
//
#include "port/posix/sockets.h"

#include <cerrno>

namespace port {
namespace {

// The caller's buffers in the host's form. A small number of buffers needs no allocation, so the
// port adds none to a path that has none.
class Vectors {
 public:
  Vectors(const WSABUF* buffers, DWORD count) : size_(count) {
    if (count > kFew) many_ = std::make_unique<iovec[]>(count);
    for (DWORD i = 0; i < count; ++i) data()[i] = {buffers[i].buf, buffers[i].len};
  }

  iovec* data() { return many_ != nullptr ? many_.get() : few_; }
  size_t size() const { return size_; }
  iovec* begin() { return data(); }
  iovec* end() { return data() + size_; }

 private:
  static constexpr DWORD kFew = 16;
  const size_t size_;
  iovec few_[kFew];
  std::unique_ptr<iovec[]> many_;
};

size_t Total(Vectors& vectors) {
  size_t total = 0;
  for (const iovec& one : vectors) total += one.iov_len;
  return total;
}

// Drops what has been sent from the front.
void Advance(Vectors* vectors, size_t sent) {
  for (iovec& one : *vectors) {
    const size_t step = std::min(sent, one.iov_len);
    one.iov_base = static_cast<char*>(one.iov_base) + step;
    one.iov_len -= step;
    sent -= step;
  }
}

int HostFlags(DWORD flags) {
  int host = MSG_NOSIGNAL;
  if (flags & MSG_PEEK) host |= native::kPeek;
  if (flags & MSG_OOB) host |= native::kOob;
  return host;
}

msghdr Message(Vectors* vectors) {
  msghdr message = {};
  message.msg_iov = vectors->data();
  message.msg_iovlen = vectors->size();
  return message;
}

// Nearly every call has a single buffer, for which the host has a faster call: here, in PutDatagram
// and in ReceiveOnce.
ssize_t PutOnStream(int fd, Vectors* vectors, int flags) {
  if (vectors->size() == 1)
    return native::Send(fd, vectors->data()->iov_base, vectors->data()->iov_len, flags);
  const msghdr message = Message(vectors);
  return native::SendMsg(fd, &message, flags);
}

ssize_t PutDatagram(int fd, Vectors* vectors, int flags, const sockaddr* to) {
  const socklen_t to_size = to != nullptr ? sizeof(sockaddr_in) : 0;
  if (vectors->size() == 1) {
    const iovec& one = *vectors->data();
    return native::SendTo(fd, one.iov_base, one.iov_len, flags, to, to_size);
  }
  msghdr message = Message(vectors);
  message.msg_name = const_cast<sockaddr*>(to);
  message.msg_namelen = to_size;
  return native::SendMsg(fd, &message, flags);
}

// With IP_RECVERR the host queues each "unreachable" report, and any later call may return it.
void DropQueuedReport(Socket& socket) {
  char data[64], control[512];
  iovec vector = {data, sizeof data};
  msghdr message = {};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  while (native::RecvMsg(socket.fd, &message, MSG_ERRQUEUE) >= 0) {
    message.msg_controllen = sizeof control;
  }
}

bool IsUnreachableReport(const Socket& socket, int number) {
  return socket.type == SOCK_DGRAM && (number == ECONNREFUSED || number == EHOSTUNREACH);
}

int CheckStream(Socket& socket) {
  if (socket.reset) return WSAECONNRESET;
  return SettleConnect(socket) == Socket::Connect::kDone ? 0 : WSAENOTCONN;
}

int CheckDestination(const Socket& socket, const sockaddr* to, int to_size) {
  if (to_size < static_cast<int>(sizeof(sockaddr_in))) return WSAEFAULT;
  sockaddr_in in;
  std::memcpy(&in, to, sizeof in);
  if (in.sin_family != socket.family) return WSAEAFNOSUPPORT;
  const bool nowhere = in.sin_addr.s_addr == 0 || (socket.type == SOCK_DGRAM && in.sin_port == 0);
  return nowhere ? WSAEADDRNOTAVAIL : 0;
}

int FinishStreamError(Socket& socket, int number) {
  const int error = ErrorOf(number);
  if (error == WSAECONNRESET) socket.reset = true;
  return error;
}

// A blocking send on a stream returns when everything is sent; a non-blocking one sends what fits.
int SendStream(Socket& socket, Vectors& vectors, int flags, DWORD* sent) {
  if (int error = CheckStream(socket)) return error;
  if (socket.shut_send) return WSAESHUTDOWN;
  const size_t total = Total(vectors);
  size_t done = 0;
  do {
    const ssize_t put = PutOnStream(socket.fd, &vectors, flags);
    if (put >= 0) {
      done += static_cast<size_t>(put);
      Advance(&vectors, static_cast<size_t>(put));
    } else if (errno == EAGAIN) {
      if (socket.non_blocking) break;
      if (int error = WaitForEvents(socket, POLLOUT, socket.send_timeout_ms)) return error;
    } else if (errno != EINTR) {
      return FinishStreamError(socket, errno);
    }
  } while (done < total);
  if (done == 0 && total > 0) return WSAEWOULDBLOCK;
  *sent = static_cast<DWORD>(done);
  return 0;
}

int SendDatagram(Socket& socket, Vectors& vectors, int flags, const sockaddr* to, int to_size,
                 DWORD* sent) {
  if (to) {
    if (int error = CheckDestination(socket, to, to_size)) return error;
  } else if (SettleConnect(socket) != Socket::Connect::kDone) {
    return WSAENOTCONN;
  }
  if (socket.shut_send) return WSAESHUTDOWN;
  while (true) {
    const ssize_t put = PutDatagram(socket.fd, &vectors, flags, to);
    if (put >= 0) {
      if (!socket.bound) socket.bound = true;  // sending binds the socket
      *sent = static_cast<DWORD>(put);
      return 0;
    }
    if (errno == EINTR) continue;
    if (IsUnreachableReport(socket, errno)) {
      // A report about an earlier datagram: receiving returns it, sending does not.
      std::lock_guard hold(socket.lock);
      socket.pending_error = WSAECONNRESET;
      continue;
    }
    if (errno != EAGAIN || socket.non_blocking) return ErrorOf(errno);
    if (int error = WaitForEvents(socket, POLLOUT, socket.send_timeout_ms)) return error;
  }
}

// True once for each report that the caller is to see as a reset.
bool TakeUnreachable(Socket& socket) {
  if (socket.pending_error == 0) return false;
  std::lock_guard hold(socket.lock);
  const bool told = socket.pending_error == WSAECONNRESET;
  if (told) {
    socket.pending_error = 0;
    DropQueuedReport(socket);
  }
  return told && socket.report_unreachable;
}

// The four functions below return the host's error number.
int ReceiveBytes(const Socket& socket, Vectors* vectors, int flags, size_t* got) {
  const ssize_t size =
      native::Recv(socket.fd, vectors->data()->iov_base, vectors->data()->iov_len, flags);
  if (size < 0) return errno;
  *got = static_cast<size_t>(size);
  return 0;
}

int ReceiveMessage(const Socket& socket, Vectors* vectors, int flags, sockaddr_storage* from,
                   unsigned* from_size, size_t* got) {
  msghdr message = Message(vectors);
  message.msg_name = from;
  message.msg_namelen = sizeof *from;
  const ssize_t size = native::RecvMsg(socket.fd, &message, flags);
  if (size < 0) return errno;
  *got = static_cast<size_t>(size);
  *from_size = message.msg_namelen;
  return (message.msg_flags & MSG_TRUNC) ? EMSGSIZE : 0;
}

int ReceiveDatagram(const Socket& socket, const iovec& room, int flags, sockaddr_storage* from,
                    unsigned* from_size, size_t* got) {
  *from_size = sizeof *from;
  const ssize_t size = native::RecvFrom(socket.fd, room.iov_base, room.iov_len, flags | MSG_TRUNC,
                                        reinterpret_cast<sockaddr*>(from), from_size);
  if (size < 0) return errno;
  *got = std::min(static_cast<size_t>(size), room.iov_len);
  return static_cast<size_t>(size) > room.iov_len ? EMSGSIZE : 0;
}

int ReceiveOnce(const Socket& socket, Vectors* vectors, int flags, sockaddr_storage* from,
                unsigned* from_size, size_t* got) {
  if (vectors->size() != 1) return ReceiveMessage(socket, vectors, flags, from, from_size, got);
  return socket.stream() ? ReceiveBytes(socket, vectors, flags, got)
                         : ReceiveDatagram(socket, *vectors->data(), flags, from, from_size, got);
}

}  // namespace

int SendOn(Socket& socket, const WSABUF* buffers, DWORD count, DWORD flags, const sockaddr* to,
           int to_size, DWORD* sent) {
  Vectors vectors(buffers, count);
  if (socket.stream()) return SendStream(socket, vectors, HostFlags(flags), sent);
  return SendDatagram(socket, vectors, HostFlags(flags), to, to_size, sent);
}

int ReceiveOn(Socket& socket, const WSABUF* buffers, DWORD count, DWORD flags, sockaddr* from,
              int* from_size, DWORD* received) {
  if (from && (!from_size || *from_size < static_cast<int>(sizeof(sockaddr_in)))) return WSAEFAULT;
  Vectors vectors(buffers, count);
  if (socket.stream()) {
    if (int error = CheckStream(socket)) return error;
  } else if (!socket.bound) {
    return WSAEINVAL;
  }
  if (socket.shut_recv) return WSAESHUTDOWN;
  while (true) {
    if (socket.type == SOCK_DGRAM && TakeUnreachable(socket)) return WSAECONNRESET;
    sockaddr_storage peer = {};
    unsigned peer_size = 0;
    size_t got = 0;
    const int number = ReceiveOnce(socket, &vectors, HostFlags(flags), &peer, &peer_size, &got);
    if (number == 0 || number == EMSGSIZE) {
      *received = static_cast<DWORD>(got);
      if (from && !socket.stream()) DeliverName(peer, peer_size, from, from_size);
      return ErrorOf(number);
    }
    if (number == EINTR) continue;
    if (IsUnreachableReport(socket, number)) {
      DropQueuedReport(socket);
      if (socket.report_unreachable) return WSAECONNRESET;
      continue;
    }
    // Without an urgent byte, the host returns "invalid argument"; Windows waits for one.
    const bool waits_for_urgent = (flags & MSG_OOB) != 0 && number == EINVAL && !socket.oob_inline;
    if (number != EAGAIN && !waits_for_urgent) return FinishStreamError(socket, number);
    if (socket.non_blocking) return WSAEWOULDBLOCK;
    const short events = waits_for_urgent ? POLLPRI : POLLIN;
    if (int error = WaitForEvents(socket, events, socket.recv_timeout_ms)) return error;
  }
}

}  // namespace port
