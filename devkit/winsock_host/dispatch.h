// The Winsock functions that programs get instead of the platform's. Each finds the provider of its
// socket, calls the matching entry of that provider's table, and makes the entry's error the
// thread's last error. After a call that succeeds, the last error is what the provider left.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

namespace winsock_host {

// Start and end of Winsock: startup.cpp.
int WSAAPI Startup(WORD version, LPWSADATA data);
int WSAAPI Cleanup();
char* WSAAPI AddressText(in_addr address);

// Making and closing sockets: dispatch_sockets.cpp.
SOCKET WSAAPI Socket(int family, int type, int protocol);
SOCKET WSAAPI SocketA(int family, int type, int protocol, LPWSAPROTOCOL_INFOA info, GROUP group,
                      DWORD flags);
SOCKET WSAAPI SocketW(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group,
                      DWORD flags);
SOCKET WSAAPI Accept(SOCKET s, sockaddr* addr, int* length);
SOCKET WSAAPI AcceptConditional(SOCKET s, sockaddr* addr, int* length, LPCONDITIONPROC condition,
                                DWORD_PTR data);
SOCKET WSAAPI JoinLeaf(SOCKET s, const sockaddr* name, int length, LPWSABUF caller, LPWSABUF callee,
                       LPQOS sqos, LPQOS gqos, DWORD flags);
int WSAAPI CloseSocket(SOCKET s);
int WSAAPI DuplicateSocketA(SOCKET s, DWORD process, LPWSAPROTOCOL_INFOA info);
int WSAAPI DuplicateSocketW(SOCKET s, DWORD process, LPWSAPROTOCOL_INFOW info);

// Transfer of data: dispatch_data.cpp.
int WSAAPI Recv(SOCKET s, char* buffer, int length, int flags);
int WSAAPI RecvEx(SOCKET s, char* buffer, int length, int* flags);
int WSAAPI RecvFrom(SOCKET s, char* buffer, int length, int flags, sockaddr* from,
                    int* from_length);
int WSAAPI Send(SOCKET s, const char* buffer, int length, int flags);
int WSAAPI SendTo(SOCKET s, const char* buffer, int length, int flags, const sockaddr* to,
                  int to_length);
int WSAAPI RecvBuffers(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                       LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSAAPI RecvBuffersFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                           sockaddr* from, LPINT from_length, LPWSAOVERLAPPED overlapped,
                           LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSAAPI SendBuffers(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                       LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSAAPI SendBuffersTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                         const sockaddr* to, int to_length, LPWSAOVERLAPPED overlapped,
                         LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSAAPI SendMsg(SOCKET s, LPWSAMSG message, DWORD flags, LPDWORD sent,
                   LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSAAPI RecvDisconnect(SOCKET s, LPWSABUF data);
int WSAAPI SendDisconnect(SOCKET s, LPWSABUF data);
BOOL WSAAPI GetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                                LPDWORD flags);

// Everything else: dispatch_control.cpp.
int WSAAPI Bind(SOCKET s, const sockaddr* name, int length);
int WSAAPI Connect(SOCKET s, const sockaddr* name, int length);
int WSAAPI ConnectWithData(SOCKET s, const sockaddr* name, int length, LPWSABUF caller,
                           LPWSABUF callee, LPQOS sqos, LPQOS gqos);
int WSAAPI Listen(SOCKET s, int backlog);
int WSAAPI Shutdown(SOCKET s, int how);
int WSAAPI GetPeerName(SOCKET s, sockaddr* name, int* length);
int WSAAPI GetSockName(SOCKET s, sockaddr* name, int* length);
int WSAAPI GetSockOpt(SOCKET s, int level, int option, char* value, int* length);
int WSAAPI SetSockOpt(SOCKET s, int level, int option, const char* value, int length);
int WSAAPI IoctlSocket(SOCKET s, long command, u_long* argument);
int WSAAPI Ioctl(SOCKET s, DWORD code, LPVOID in, DWORD in_bytes, LPVOID out, DWORD out_bytes,
                 LPDWORD returned, LPWSAOVERLAPPED overlapped,
                 LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSAAPI Select(int n, fd_set* reads, fd_set* writes, fd_set* excepts, const timeval* timeout);
int WSAAPI AsyncSelect(SOCKET s, HWND window, u_int message, long events);
int WSAAPI EventSelect(SOCKET s, WSAEVENT event, long events);
int WSAAPI EnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS events);
BOOL WSAAPI GetQosByName(SOCKET s, LPWSABUF name, LPQOS qos);

}  // namespace winsock_host
