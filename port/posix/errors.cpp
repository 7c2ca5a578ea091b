// Translates the host's error numbers into Winsock's.
#include <cerrno>

#include "port/posix/native.h"
//
#include "port/posix/sockets.h"

namespace port {

int ErrorOf(int host_errno) {
  switch (host_errno) {
    case 0:
      return 0;
    case EINTR:
      return WSAEINTR;
    case EBADF:
    case ENOTSOCK:
      return WSAENOTSOCK;
    case EACCES:
    case EPERM:
      return WSAEACCES;
    case EFAULT:
      return WSAEFAULT;
    case EINVAL:
      return WSAEINVAL;
    case EMFILE:
    case ENFILE:
      return WSAEMFILE;
    case EAGAIN:
      return WSAEWOULDBLOCK;
    case EINPROGRESS:
      return WSAEWOULDBLOCK;
    case EALREADY:
      return WSAEALREADY;
    case EDESTADDRREQ:
      return WSAEDESTADDRREQ;
    case EMSGSIZE:
      return WSAEMSGSIZE;
    case EPROTOTYPE:
      return WSAEPROTOTYPE;
    case ENOPROTOOPT:
      return WSAENOPROTOOPT;
    case EPROTONOSUPPORT:
      return WSAEPROTONOSUPPORT;
    case ESOCKTNOSUPPORT:
      return WSAESOCKTNOSUPPORT;
    case EOPNOTSUPP:
      return WSAEOPNOTSUPP;
    case EAFNOSUPPORT:
      return WSAEAFNOSUPPORT;
    case EADDRINUSE:
      return WSAEADDRINUSE;
    case EADDRNOTAVAIL:
      return WSAEADDRNOTAVAIL;
    case ENETDOWN:
      return WSAENETDOWN;
    case ENETUNREACH:
      return WSAENETUNREACH;
    case ENETRESET:
      return WSAENETRESET;
    case ECONNABORTED:
      return WSAECONNABORTED;
    case EPIPE:
    case ECONNRESET:
      return WSAECONNRESET;
    case ENOMEM:
    case ENOBUFS:
      return WSAENOBUFS;
    case EISCONN:
      return WSAEISCONN;
    case ENOTCONN:
      return WSAENOTCONN;
    case ESHUTDOWN:
      return WSAESHUTDOWN;
    case ETIMEDOUT:
      return WSAETIMEDOUT;
    case ECONNREFUSED:
      return WSAECONNREFUSED;
    case EHOSTDOWN:
    case EHOSTUNREACH:
      return WSAEHOSTUNREACH;
    default:
      return WSAEINVAL;
  }
}

}  // namespace port
