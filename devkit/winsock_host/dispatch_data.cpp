#include <mswsock.h>

#include "dispatch.h"
#include "finish.h"
#include "owners.h"

namespace winsock_host {
namespace {

DWORD BytesOf(LPDWORD bytes) { return bytes != nullptr ? *bytes : 0; }

WSABUF BufferOf(const char* buffer, int length) {
  WSABUF single;
  single.len = static_cast<u_long>(length);
  single.buf = const_cast<char*>(buffer);
  return single;
}

// The plain calls answer with the byte count, the others with 0. By reference: the count is
// written by the very call that is the other argument.
int CountOrFailure(int result, const DWORD& bytes) {
  return result == SOCKET_ERROR ? SOCKET_ERROR : static_cast<int>(bytes);
}

}  // namespace

int WSAAPI Recv(SOCKET s, char* buffer, int length, int flags) {
  DWORD bytes = 0;
  DWORD in_out_flags = static_cast<DWORD>(flags);
  WSABUF single = BufferOf(buffer, length);
  return CountOrFailure(RecvBuffers(s, &single, 1, &bytes, &in_out_flags, nullptr, nullptr), bytes);
}

int WSAAPI RecvEx(SOCKET s, char* buffer, int length, int* flags) {
  DWORD bytes = 0;
  DWORD in_out_flags = flags != nullptr ? static_cast<DWORD>(*flags) : 0;
  WSABUF single = BufferOf(buffer, length);
  const int result = RecvBuffers(s, &single, 1, &bytes, &in_out_flags, nullptr, nullptr);
  if (flags != nullptr) *flags = static_cast<int>(in_out_flags);
  return CountOrFailure(result, bytes);
}

int WSAAPI RecvFrom(SOCKET s, char* buffer, int length, int flags, sockaddr* from,
                    int* from_length) {
  DWORD bytes = 0;
  DWORD in_out_flags = static_cast<DWORD>(flags);
  WSABUF single = BufferOf(buffer, length);
  return CountOrFailure(
      RecvBuffersFrom(s, &single, 1, &bytes, &in_out_flags, from, from_length, nullptr, nullptr),
      bytes);
}

int WSAAPI Send(SOCKET s, const char* buffer, int length, int flags) {
  DWORD bytes = 0;
  WSABUF single = BufferOf(buffer, length);
  return CountOrFailure(
      SendBuffers(s, &single, 1, &bytes, static_cast<DWORD>(flags), nullptr, nullptr), bytes);
}

int WSAAPI SendTo(SOCKET s, const char* buffer, int length, int flags, const sockaddr* to,
                  int to_length) {
  DWORD bytes = 0;
  WSABUF single = BufferOf(buffer, length);
  return CountOrFailure(SendBuffersTo(s, &single, 1, &bytes, static_cast<DWORD>(flags), to,
                                      to_length, nullptr, nullptr),
                        bytes);
}

int WSAAPI RecvBuffers(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                       LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  const Provider& provider = OwnerOf(s);
  CallingThread thread;
  int error = 0;
  const int result = provider.table.lpWSPRecv(s, buffers, count, received, flags, overlapped,
                                              routine, &thread.id, &error);
  return Finish(provider, kRecv, result, error, result == 0 ? BytesOf(received) : 0);
}

int WSAAPI RecvBuffersFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                           sockaddr* from, LPINT from_length, LPWSAOVERLAPPED overlapped,
                           LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  const Provider& provider = OwnerOf(s);
  CallingThread thread;
  int error = 0;
  const int result =
      provider.table.lpWSPRecvFrom(s, buffers, count, received, flags, from, from_length,
                                   overlapped, routine, &thread.id, &error);
  return Finish(provider, kRecvFrom, result, error, result == 0 ? BytesOf(received) : 0);
}

int WSAAPI SendBuffers(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                       LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  const Provider& provider = OwnerOf(s);
  CallingThread thread;
  int error = 0;
  const int result = provider.table.lpWSPSend(s, buffers, count, sent, flags, overlapped, routine,
                                              &thread.id, &error);
  return Finish(provider, kSend, result, error, result == 0 ? BytesOf(sent) : 0);
}

int WSAAPI SendBuffersTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                         const sockaddr* to, int to_length, LPWSAOVERLAPPED overlapped,
                         LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  const Provider& provider = OwnerOf(s);
  CallingThread thread;
  int error = 0;
  const int result = provider.table.lpWSPSendTo(s, buffers, count, sent, flags, to, to_length,
                                                overlapped, routine, &thread.id, &error);
  return Finish(provider, kSendTo, result, error, result == 0 ? BytesOf(sent) : 0);
}

int WSAAPI SendMsg(SOCKET s, LPWSAMSG message, DWORD flags, LPDWORD sent,
                   LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  // The call table has no entry for this one: Winsock asks the provider for the extension function.
  using Function = int(WSAAPI*)(SOCKET, LPWSAMSG, DWORD, LPDWORD, LPWSAOVERLAPPED,
                                LPWSAOVERLAPPED_COMPLETION_ROUTINE);
  GUID id = WSAID_WSASENDMSG;
  Function function = nullptr;
  DWORD returned = 0;
  const int result = Ioctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &function,
                           sizeof(function), &returned, nullptr, nullptr);
  if (result != 0 || function == nullptr) return SOCKET_ERROR;
  return function(s, message, flags, sent, overlapped, routine);
}

int WSAAPI RecvDisconnect(SOCKET s, LPWSABUF data) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPRecvDisconnect(s, data, &error);
  return Finish(provider, kRecvDisconnect, result, error);
}

int WSAAPI SendDisconnect(SOCKET s, LPWSABUF data) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const int result = provider.table.lpWSPSendDisconnect(s, data, &error);
  return Finish(provider, kSendDisconnect, result, error);
}

BOOL WSAAPI GetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                                LPDWORD flags) {
  const Provider& provider = OwnerOf(s);
  int error = 0;
  const BOOL result =
      provider.table.lpWSPGetOverlappedResult(s, overlapped, bytes, wait, flags, &error);
  return Finish<BOOL>(provider, kGetOverlappedResult, result, FALSE, error,
                      result ? BytesOf(bytes) : 0);
}

}  // namespace winsock_host
