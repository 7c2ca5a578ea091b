// The host's socket calls and values, under different names. Include this first, because winsock2.h
// gives the usual names another meaning.
#pragma once
#include <fcntl.h>
#include <linux/errqueue.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <windows.h>

#ifdef WSAAPI
#error "native.h must come before winsock2.h"
#endif

namespace native {

inline constexpr int kSolSocket = SOL_SOCKET;
inline constexpr int kAcceptConn = SO_ACCEPTCONN;
inline constexpr int kReuseAddr = SO_REUSEADDR;
inline constexpr int kKeepAlive = SO_KEEPALIVE;
inline constexpr int kDontRoute = SO_DONTROUTE;
inline constexpr int kBroadcast = SO_BROADCAST;
inline constexpr int kLinger = SO_LINGER;
inline constexpr int kOobInline = SO_OOBINLINE;
inline constexpr int kSndBuf = SO_SNDBUF;
inline constexpr int kRcvBuf = SO_RCVBUF;
inline constexpr int kError = SO_ERROR;
inline constexpr int kNoDelay = TCP_NODELAY;
inline constexpr int kOob = MSG_OOB;
inline constexpr int kPeek = MSG_PEEK;
inline constexpr int kMaxBacklog = 4096;
inline constexpr unsigned long kReadable = FIONREAD;

inline int Socket(int family, int type, int protocol) { return ::socket(family, type, protocol); }
inline int Bind(int fd, const sockaddr* name, socklen_t size) { return ::bind(fd, name, size); }
inline int Listen(int fd, int backlog) { return ::listen(fd, backlog); }
inline int Accept(int fd, sockaddr* name, socklen_t* size) {
  return ::accept4(fd, name, size, SOCK_NONBLOCK | SOCK_CLOEXEC);
}
inline int Connect(int fd, const sockaddr* name, socklen_t size) {
  return ::connect(fd, name, size);
}
inline ssize_t Send(int fd, const void* bytes, size_t size, int flags) {
  return ::send(fd, bytes, size, flags);
}
inline ssize_t Recv(int fd, void* bytes, size_t size, int flags) {
  return ::recv(fd, bytes, size, flags);
}
inline ssize_t SendTo(int fd, const void* bytes, size_t size, int flags, const sockaddr* to,
                      socklen_t to_size) {
  return ::sendto(fd, bytes, size, flags, to, to_size);
}
inline ssize_t RecvFrom(int fd, void* bytes, size_t size, int flags, sockaddr* from,
                        socklen_t* from_size) {
  return ::recvfrom(fd, bytes, size, flags, from, from_size);
}
inline ssize_t SendMsg(int fd, const msghdr* message, int flags) {
  return ::sendmsg(fd, message, flags);
}
inline ssize_t RecvMsg(int fd, msghdr* message, int flags) { return ::recvmsg(fd, message, flags); }
inline int Shutdown(int fd, int how) { return ::shutdown(fd, how); }
inline int GetSockName(int fd, sockaddr* name, socklen_t* size) {
  return ::getsockname(fd, name, size);
}
inline int GetPeerName(int fd, sockaddr* name, socklen_t* size) {
  return ::getpeername(fd, name, size);
}
inline int GetSockOpt(int fd, int level, int option, void* value, socklen_t* size) {
  return ::getsockopt(fd, level, option, value, size);
}
inline int SetSockOpt(int fd, int level, int option, const void* value, socklen_t size) {
  return ::setsockopt(fd, level, option, value, size);
}

}  // namespace native
