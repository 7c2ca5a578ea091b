// The Winsock calls that the product and the devkit make, for machines that lack them.
//
// The semantics are those of Windows, not of the host system: error numbers, the sets of select,
// the inheritance of non-blocking mode. tests/contract checks each backend.
//
// sockaddr, sockaddr_in, in_addr and sockaddr_storage are the host system's own, which have the
// same layout. Macros rename the names that the C library uses with another meaning, so that code
// which includes this header sees each name once.
#ifndef VYR_PORT_WINSOCK2_H
#define VYR_PORT_WINSOCK2_H
#include <windows.h>

#define WSAAPI
#define PASCAL

typedef uint32_t SOCKET;  // 32 bits, as in the 32-bit product
typedef unsigned int GROUP, u_int;
typedef unsigned char u_char;
typedef unsigned short u_short;
typedef unsigned long u_long;
typedef HANDLE WSAEVENT;
typedef struct sockaddr *PSOCKADDR, *LPSOCKADDR;
typedef struct sockaddr SOCKADDR;
typedef struct sockaddr_in SOCKADDR_IN;

#define INVALID_SOCKET (static_cast<SOCKET>(~0u))
#define SOCKET_ERROR (-1)

// --- values that differ from the host system's ----------------------------------------------
#undef SOL_SOCKET
#undef SO_DEBUG
#undef SO_ACCEPTCONN
#undef SO_REUSEADDR
#undef SO_KEEPALIVE
#undef SO_DONTROUTE
#undef SO_BROADCAST
#undef SO_LINGER
#undef SO_OOBINLINE
#undef SO_SNDBUF
#undef SO_RCVBUF
#undef SO_SNDTIMEO
#undef SO_RCVTIMEO
#undef SO_ERROR
#undef SO_TYPE
#undef MSG_PEEK
#undef MSG_OOB
#undef FIONBIO
#undef FIONREAD
#undef FD_SETSIZE
#undef FD_SET
#undef FD_CLR
#undef FD_ZERO
#undef FD_ISSET
#undef SOMAXCONN
#undef TCP_NODELAY
#define SOL_SOCKET 0xffff
#define SO_DEBUG 0x0001
#define SO_ACCEPTCONN 0x0002
#define SO_REUSEADDR 0x0004
#define SO_KEEPALIVE 0x0008
#define SO_DONTROUTE 0x0010
#define SO_BROADCAST 0x0020
#define SO_LINGER 0x0080
#define SO_OOBINLINE 0x0100
#define SO_EXCLUSIVEADDRUSE (static_cast<int>(~SO_REUSEADDR))
#define SO_SNDBUF 0x1001
#define SO_RCVBUF 0x1002
#define SO_SNDTIMEO 0x1005
#define SO_RCVTIMEO 0x1006
#define SO_ERROR 0x1007
#define SO_TYPE 0x1008
#define TCP_NODELAY 0x0001
#define MSG_OOB 0x1
#define MSG_PEEK 0x2
#define SOMAXCONN 0x7fffffff
#define FIONBIO 0x8004667e
#define FIONREAD 0x4004667f
#define SIO_GET_EXTENSION_FUNCTION_POINTER 0xc8000006u
#define SIO_UDP_CONNRESET 0x9800000cu
#define SD_RECEIVE 0
#define SD_SEND 1
#define SD_BOTH 2

// --- errors ---------------------------------------------------------------------------------
#define WSAEINTR 10004
#define WSAEBADF 10009
#define WSAEACCES 10013
#define WSAEFAULT 10014
#define WSAEINVAL 10022
#define WSAEMFILE 10024
#define WSAEWOULDBLOCK 10035
#define WSAEINPROGRESS 10036
#define WSAEALREADY 10037
#define WSAENOTSOCK 10038
#define WSAEDESTADDRREQ 10039
#define WSAEMSGSIZE 10040
#define WSAEPROTOTYPE 10041
#define WSAENOPROTOOPT 10042
#define WSAEPROTONOSUPPORT 10043
#define WSAESOCKTNOSUPPORT 10044
#define WSAEOPNOTSUPP 10045
#define WSAEAFNOSUPPORT 10047
#define WSAEADDRINUSE 10048
#define WSAEADDRNOTAVAIL 10049
#define WSAENETDOWN 10050
#define WSAENETUNREACH 10051
#define WSAENETRESET 10052
#define WSAECONNABORTED 10053
#define WSAECONNRESET 10054
#define WSAENOBUFS 10055
#define WSAEISCONN 10056
#define WSAENOTCONN 10057
#define WSAESHUTDOWN 10058
#define WSAETIMEDOUT 10060
#define WSAECONNREFUSED 10061
#define WSAEHOSTUNREACH 10065
#define WSASYSNOTREADY 10091
#define WSAVERNOTSUPPORTED 10092
#define WSANOTINITIALISED 10093
#define WSAEINVALIDPROCTABLE 10104
#define WSAEINVALIDPROVIDER 10105
#define WSAEPROVIDERFAILEDINIT 10106
#define WSA_IO_PENDING 997

int WSAAPI WSAGetLastError();
void WSAAPI WSASetLastError(int error);

// --- records --------------------------------------------------------------------------------
#define FD_SETSIZE 128
typedef struct vyr_port_fd_set {
  u_int fd_count;
  SOCKET fd_array[FD_SETSIZE];
} vyr_port_fd_set;
#define fd_set vyr_port_fd_set

struct vyr_port_timeval {
  int32_t tv_sec;
  int32_t tv_usec;
};
#define timeval vyr_port_timeval

inline void vyr_port_fd_add(SOCKET s, vyr_port_fd_set* set) {
  for (u_int i = 0; i < set->fd_count; ++i)
    if (set->fd_array[i] == s) return;
  if (set->fd_count < FD_SETSIZE) set->fd_array[set->fd_count++] = s;
}
inline void vyr_port_fd_remove(SOCKET s, vyr_port_fd_set* set) {
  for (u_int i = 0; i < set->fd_count; ++i) {
    if (set->fd_array[i] != s) continue;
    for (; i + 1 < set->fd_count; ++i) set->fd_array[i] = set->fd_array[i + 1];
    --set->fd_count;
    return;
  }
}
inline int __WSAFDIsSet(SOCKET s, vyr_port_fd_set* set) {
  for (u_int i = 0; i < set->fd_count; ++i)
    if (set->fd_array[i] == s) return 1;
  return 0;
}
#define FD_ZERO(set) ((set)->fd_count = 0)
#define FD_SET(s, set) vyr_port_fd_add((s), (set))
#define FD_CLR(s, set) vyr_port_fd_remove((s), (set))
#define FD_ISSET(s, set) __WSAFDIsSet((s), (set))

typedef struct WSAData {
  WORD wVersion, wHighVersion;
  char szDescription[257], szSystemStatus[129];
  unsigned short iMaxSockets, iMaxUdpDg;
  char* lpVendorInfo;
} WSADATA, *LPWSADATA;

typedef struct _WSABUF {
  ULONG len;
  CHAR* buf;
} WSABUF, *LPWSABUF;

typedef OVERLAPPED WSAOVERLAPPED, *LPWSAOVERLAPPED;
typedef void(CALLBACK* LPWSAOVERLAPPED_COMPLETION_ROUTINE)(DWORD error, DWORD bytes,
                                                           LPWSAOVERLAPPED overlapped, DWORD flags);
typedef struct _QualityOfService* LPQOS;
typedef struct _WSANETWORKEVENTS {
  LONG lNetworkEvents;
  int iErrorCode[10];
} WSANETWORKEVENTS, *LPWSANETWORKEVENTS;
typedef int(CALLBACK* LPCONDITIONPROC)(LPWSABUF caller, LPWSABUF caller_data, LPQOS, LPQOS,
                                       LPWSABUF callee, LPWSABUF callee_data, GROUP*, DWORD_PTR);

#define MAX_PROTOCOL_CHAIN 7
#define BASE_PROTOCOL 1
#define LAYERED_PROTOCOL 0
#define WSAPROTOCOL_LEN 255
#define XP1_CONNECTIONLESS 0x1u
#define XP1_GUARANTEED_DELIVERY 0x2u
#define XP1_GUARANTEED_ORDER 0x4u
#define XP1_IFS_HANDLES 0x20000u
#define WSA_FLAG_OVERLAPPED 0x1u

typedef struct _WSAPROTOCOLCHAIN {
  int ChainLen;
  DWORD ChainEntries[MAX_PROTOCOL_CHAIN];
} WSAPROTOCOLCHAIN, *LPWSAPROTOCOLCHAIN;
typedef struct _WSAPROTOCOL_INFOW {
  DWORD dwServiceFlags1, dwServiceFlags2, dwServiceFlags3, dwServiceFlags4, dwProviderFlags;
  GUID ProviderId;
  DWORD dwCatalogEntryId;
  WSAPROTOCOLCHAIN ProtocolChain;
  int iVersion, iAddressFamily, iMaxSockAddr, iMinSockAddr, iSocketType, iProtocol;
  int iProtocolMaxOffset, iNetworkByteOrder, iSecurityScheme;
  DWORD dwMessageSize, dwProviderReserved;
  WCHAR szProtocol[WSAPROTOCOL_LEN + 1];
} WSAPROTOCOL_INFOW, *LPWSAPROTOCOL_INFOW;

// --- calls ----------------------------------------------------------------------------------
int WSAAPI WSAStartup(WORD version, LPWSADATA data);
int WSAAPI WSACleanup();
int WSAAPI closesocket(SOCKET s);
int WSAAPI ioctlsocket(SOCKET s, long command, u_long* argument);

// These go through the process's call table, as on Windows, so a layered provider sees them, too.
SOCKET vyr_port_socket(int family, int type, int protocol);
int vyr_port_bind(SOCKET s, const struct sockaddr* name, int name_size);
int vyr_port_listen(SOCKET s, int backlog);
SOCKET vyr_port_accept(SOCKET s, struct sockaddr* name, int* name_size);
int vyr_port_connect(SOCKET s, const struct sockaddr* name, int name_size);
int vyr_port_select(int ignored, vyr_port_fd_set* read, vyr_port_fd_set* write,
                    vyr_port_fd_set* except, const struct vyr_port_timeval* timeout);
int vyr_port_recv(SOCKET s, char* buffer, int size, int flags);
int vyr_port_send(SOCKET s, const char* buffer, int size, int flags);
int vyr_port_recvfrom(SOCKET s, char* buffer, int size, int flags, struct sockaddr* from,
                      int* from_size);
int vyr_port_sendto(SOCKET s, const char* buffer, int size, int flags, const struct sockaddr* to,
                    int to_size);
int vyr_port_shutdown(SOCKET s, int how);
int vyr_port_getsockname(SOCKET s, struct sockaddr* name, int* name_size);
int vyr_port_getpeername(SOCKET s, struct sockaddr* name, int* name_size);
int vyr_port_getsockopt(SOCKET s, int level, int option, char* value, int* value_size);
int vyr_port_setsockopt(SOCKET s, int level, int option, const char* value, int value_size);
unsigned long vyr_port_inet_addr(const char* text);
char* vyr_port_inet_ntoa(struct in_addr address);

#define socket(...) vyr_port_socket(__VA_ARGS__)
#define bind(...) vyr_port_bind(__VA_ARGS__)
#define listen(...) vyr_port_listen(__VA_ARGS__)
#define accept(...) vyr_port_accept(__VA_ARGS__)
#define connect(...) vyr_port_connect(__VA_ARGS__)
#define select(...) vyr_port_select(__VA_ARGS__)
#define recv(...) vyr_port_recv(__VA_ARGS__)
#define send(...) vyr_port_send(__VA_ARGS__)
#define recvfrom(...) vyr_port_recvfrom(__VA_ARGS__)
#define sendto(...) vyr_port_sendto(__VA_ARGS__)
#define shutdown(...) vyr_port_shutdown(__VA_ARGS__)
#define getsockname(...) vyr_port_getsockname(__VA_ARGS__)
#define getpeername(...) vyr_port_getpeername(__VA_ARGS__)
#define getsockopt(...) vyr_port_getsockopt(__VA_ARGS__)
#define setsockopt(...) vyr_port_setsockopt(__VA_ARGS__)
#define inet_addr(...) vyr_port_inet_addr(__VA_ARGS__)
#define inet_ntoa(...) vyr_port_inet_ntoa(__VA_ARGS__)

#endif  // VYR_PORT_WINSOCK2_H
