// The Winsock service provider interface: the call table between Winsock and a provider.
#ifndef VYR_PORT_WS2SPI_H
#define VYR_PORT_WS2SPI_H
#include <winsock2.h>

#define WSPAPI
typedef struct HWND_* HWND;

typedef struct _WSATHREADID {
  HANDLE ThreadHandle;
  DWORD_PTR Reserved;
} WSATHREADID, *LPWSATHREADID;

typedef struct WSPData {
  WORD wVersion, wHighVersion;
  WCHAR szDescription[WSAPROTOCOL_LEN + 1];
} WSPDATA, *LPWSPDATA;

// Fifteen pointers back into Winsock. The product stores them and never calls them, so they have
// no types of their own here.
typedef struct _WSPUPCALLTABLE {
  FARPROC entries[15];
} WSPUPCALLTABLE, *LPWSPUPCALLTABLE;

typedef SOCKET(WSPAPI* LPWSPACCEPT)(SOCKET s, struct sockaddr* name, LPINT name_size,
                                    LPCONDITIONPROC condition, DWORD_PTR data, LPINT error);
typedef INT(WSPAPI* LPWSPADDRESSTOSTRING)(LPSOCKADDR name, DWORD name_size,
                                          LPWSAPROTOCOL_INFOW info, LPWSTR out, LPDWORD out_size,
                                          LPINT error);
typedef int(WSPAPI* LPWSPASYNCSELECT)(SOCKET s, HWND window, unsigned int message, long events,
                                      LPINT error);
typedef int(WSPAPI* LPWSPBIND)(SOCKET s, const struct sockaddr* name, int name_size, LPINT error);
typedef int(WSPAPI* LPWSPCANCELBLOCKINGCALL)(LPINT error);
typedef int(WSPAPI* LPWSPCLEANUP)(LPINT error);
typedef int(WSPAPI* LPWSPCLOSESOCKET)(SOCKET s, LPINT error);
typedef int(WSPAPI* LPWSPCONNECT)(SOCKET s, const struct sockaddr* name, int name_size,
                                  LPWSABUF caller, LPWSABUF callee, LPQOS s_qos, LPQOS g_qos,
                                  LPINT error);
typedef int(WSPAPI* LPWSPDUPLICATESOCKET)(SOCKET s, DWORD process, LPWSAPROTOCOL_INFOW out,
                                          LPINT error);
typedef int(WSPAPI* LPWSPENUMNETWORKEVENTS)(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS out,
                                            LPINT error);
typedef int(WSPAPI* LPWSPEVENTSELECT)(SOCKET s, WSAEVENT event, long events, LPINT error);
typedef BOOL(WSPAPI* LPWSPGETOVERLAPPEDRESULT)(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes,
                                               BOOL wait, LPDWORD flags, LPINT error);
typedef int(WSPAPI* LPWSPGETPEERNAME)(SOCKET s, struct sockaddr* name, LPINT name_size,
                                      LPINT error);
typedef int(WSPAPI* LPWSPGETSOCKNAME)(SOCKET s, struct sockaddr* name, LPINT name_size,
                                      LPINT error);
typedef int(WSPAPI* LPWSPGETSOCKOPT)(SOCKET s, int level, int option, char* value, LPINT value_size,
                                     LPINT error);
typedef BOOL(WSPAPI* LPWSPGETQOSBYNAME)(SOCKET s, LPWSABUF name, LPQOS out, LPINT error);
typedef int(WSPAPI* LPWSPIOCTL)(SOCKET s, DWORD code, LPVOID in, DWORD in_size, LPVOID out,
                                DWORD out_size, LPDWORD returned, LPWSAOVERLAPPED overlapped,
                                LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                                LPINT error);
typedef SOCKET(WSPAPI* LPWSPJOINLEAF)(SOCKET s, const struct sockaddr* name, int name_size,
                                      LPWSABUF caller, LPWSABUF callee, LPQOS s_qos, LPQOS g_qos,
                                      DWORD flags, LPINT error);
typedef int(WSPAPI* LPWSPLISTEN)(SOCKET s, int backlog, LPINT error);
typedef int(WSPAPI* LPWSPRECV)(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received,
                               LPDWORD flags, LPWSAOVERLAPPED overlapped,
                               LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                               LPINT error);
typedef int(WSPAPI* LPWSPRECVDISCONNECT)(SOCKET s, LPWSABUF data, LPINT error);
typedef int(WSPAPI* LPWSPRECVFROM)(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received,
                                   LPDWORD flags, struct sockaddr* from, LPINT from_size,
                                   LPWSAOVERLAPPED overlapped,
                                   LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                                   LPWSATHREADID thread, LPINT error);
typedef int(WSPAPI* LPWSPSELECT)(int ignored, fd_set* read, fd_set* write, fd_set* except,
                                 const struct timeval* timeout, LPINT error);
typedef int(WSPAPI* LPWSPSEND)(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                               LPWSAOVERLAPPED overlapped,
                               LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                               LPINT error);
typedef int(WSPAPI* LPWSPSENDDISCONNECT)(SOCKET s, LPWSABUF data, LPINT error);
typedef int(WSPAPI* LPWSPSENDTO)(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                                 const struct sockaddr* to, int to_size, LPWSAOVERLAPPED overlapped,
                                 LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                                 LPWSATHREADID thread, LPINT error);
typedef int(WSPAPI* LPWSPSETSOCKOPT)(SOCKET s, int level, int option, const char* value,
                                     int value_size, LPINT error);
typedef int(WSPAPI* LPWSPSHUTDOWN)(SOCKET s, int how, LPINT error);
typedef SOCKET(WSPAPI* LPWSPSOCKET)(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info,
                                    GROUP group, DWORD flags, LPINT error);
typedef INT(WSPAPI* LPWSPSTRINGTOADDRESS)(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW info,
                                          LPSOCKADDR out, LPINT out_size, LPINT error);

// A provider's entries, in the platform's order.
typedef struct _WSPPROC_TABLE {
  LPWSPACCEPT lpWSPAccept;
  LPWSPADDRESSTOSTRING lpWSPAddressToString;
  LPWSPASYNCSELECT lpWSPAsyncSelect;
  LPWSPBIND lpWSPBind;
  LPWSPCANCELBLOCKINGCALL lpWSPCancelBlockingCall;
  LPWSPCLEANUP lpWSPCleanup;
  LPWSPCLOSESOCKET lpWSPCloseSocket;
  LPWSPCONNECT lpWSPConnect;
  LPWSPDUPLICATESOCKET lpWSPDuplicateSocket;
  LPWSPENUMNETWORKEVENTS lpWSPEnumNetworkEvents;
  LPWSPEVENTSELECT lpWSPEventSelect;
  LPWSPGETOVERLAPPEDRESULT lpWSPGetOverlappedResult;
  LPWSPGETPEERNAME lpWSPGetPeerName;
  LPWSPGETSOCKNAME lpWSPGetSockName;
  LPWSPGETSOCKOPT lpWSPGetSockOpt;
  LPWSPGETQOSBYNAME lpWSPGetQOSByName;
  LPWSPIOCTL lpWSPIoctl;
  LPWSPJOINLEAF lpWSPJoinLeaf;
  LPWSPLISTEN lpWSPListen;
  LPWSPRECV lpWSPRecv;
  LPWSPRECVDISCONNECT lpWSPRecvDisconnect;
  LPWSPRECVFROM lpWSPRecvFrom;
  LPWSPSELECT lpWSPSelect;
  LPWSPSEND lpWSPSend;
  LPWSPSENDDISCONNECT lpWSPSendDisconnect;
  LPWSPSENDTO lpWSPSendTo;
  LPWSPSETSOCKOPT lpWSPSetSockOpt;
  LPWSPSHUTDOWN lpWSPShutdown;
  LPWSPSOCKET lpWSPSocket;
  LPWSPSTRINGTOADDRESS lpWSPStringToAddress;
} WSPPROC_TABLE, *LPWSPPROC_TABLE;
static_assert(sizeof(WSPPROC_TABLE) == 30 * sizeof(void*));

typedef int(WSPAPI* LPWSPSTARTUP)(WORD version, LPWSPDATA data, LPWSAPROTOCOL_INFOW info,
                                  WSPUPCALLTABLE upcalls, LPWSPPROC_TABLE out);
extern "C" int WSPAPI WSPStartup(WORD version, LPWSPDATA data, LPWSAPROTOCOL_INFOW info,
                                 WSPUPCALLTABLE upcalls, LPWSPPROC_TABLE out);

// Reads the catalogue. If the buffer is too small, the result is -1 with 10055 in *error, and
// *size is the size that is needed.
int WSPAPI WSCEnumProtocols(LPINT protocols, LPWSAPROTOCOL_INFOW buffer, LPDWORD size, LPINT error);
int WSPAPI WSCGetProviderPath(GUID* provider, WCHAR* path, LPINT path_length, LPINT error);

#endif  // VYR_PORT_WS2SPI_H
