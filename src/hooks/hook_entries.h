// The functions that replace the next provider's in the call table, and the one that applications
// get in place of ConnectEx.
//
// Any application thread, and the relay's worker for its own sockets. Each reads one copy of the
// socket's record at its start and holds no lock while it is in the next provider. None throws, and
// a call that relays nothing passes the caller's arguments on unchanged.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

namespace moru_vyr::lsp {

SOCKET WSPAPI WSPSocket(int af, int type, int protocol, LPWSAPROTOCOL_INFOW lpProtocolInfo, GROUP g,
                        DWORD dwFlags, LPINT lpErrno) noexcept;
SOCKET WSPAPI WSPAccept(SOCKET s, struct sockaddr* addr, LPINT addrlen,
                        LPCONDITIONPROC lpfnCondition, DWORD_PTR dwCallbackData,
                        LPINT lpErrno) noexcept;
int WSPAPI WSPBind(SOCKET s, const struct sockaddr* name, int namelen, LPINT lpErrno) noexcept;
int WSPAPI WSPConnect(SOCKET s, const struct sockaddr* name, int namelen, LPWSABUF lpCallerData,
                      LPWSABUF lpCalleeData, LPQOS lpSQOS, LPQOS lpGQOS, LPINT lpErrno) noexcept;
int WSPAPI WSPGetPeerName(SOCKET s, struct sockaddr* name, LPINT namelen, LPINT lpErrno) noexcept;
int WSPAPI WSPCloseSocket(SOCKET s, LPINT lpErrno) noexcept;

int WSPAPI WSPSend(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                   DWORD dwFlags, LPWSAOVERLAPPED lpOverlapped,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine, LPWSATHREADID lpThreadId,
                   LPINT lpErrno) noexcept;
int WSPAPI WSPRecv(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesRecvd,
                   LPDWORD lpFlags, LPWSAOVERLAPPED lpOverlapped,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine, LPWSATHREADID lpThreadId,
                   LPINT lpErrno) noexcept;
int WSPAPI WSPSendTo(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                     DWORD dwFlags, const struct sockaddr* lpTo, int iTolen,
                     LPWSAOVERLAPPED lpOverlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                     LPWSATHREADID lpThreadId, LPINT lpErrno) noexcept;
int WSPAPI WSPRecvFrom(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount,
                       LPDWORD lpNumberOfBytesRecvd, LPDWORD lpFlags, struct sockaddr* lpFrom,
                       LPINT lpFromlen, LPWSAOVERLAPPED lpOverlapped,
                       LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                       LPWSATHREADID lpThreadId, LPINT lpErrno) noexcept;
int WSPAPI WSPIoctl(SOCKET s, DWORD dwIoControlCode, LPVOID lpvInBuffer, DWORD cbInBuffer,
                    LPVOID lpvOutBuffer, DWORD cbOutBuffer, LPDWORD lpcbBytesReturned,
                    LPWSAOVERLAPPED lpOverlapped,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                    LPWSATHREADID lpThreadId, LPINT lpErrno) noexcept;
int WSPAPI WSPCleanup(LPINT lpErrno) noexcept;

// Returned for WSAID_CONNECTEX. Its result is the negation of the real function's: a pending
// connect, for which the real function returns FALSE, returns TRUE.
BOOL PASCAL WSPConnectEx(SOCKET s, const struct sockaddr* name, int namelen, PVOID lpSendBuffer,
                         DWORD dwSendDataLength, LPDWORD lpdwBytesSent,
                         LPOVERLAPPED lpOverlapped) noexcept;

}  // namespace moru_vyr::lsp
