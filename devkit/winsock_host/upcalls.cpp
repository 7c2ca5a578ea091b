#include "upcalls.h"

#include "catalogue.h"
#include "owners.h"
#include "providers.h"

namespace winsock_host {
namespace {

// Every socket handle is the platform's own, so the functions for providers that make handles of
// their own refuse.
template <typename Result>
Result Refuse(Result result, LPINT error) {
  if (error != nullptr) *error = WSAEOPNOTSUPP;
  return result;
}
BOOL Answer(BOOL ok, LPINT error) {
  const int last_error = WSAGetLastError();
  if (!ok && error != nullptr) *error = last_error;
  return ok;
}

BOOL WSPAPI CloseEvent(WSAEVENT event, LPINT error) { return Answer(WSACloseEvent(event), error); }
int WSPAPI CloseSocketHandle(SOCKET, LPINT error) { return Refuse(SOCKET_ERROR, error); }
WSAEVENT WSPAPI CreateEventUpcall(LPINT error) {
  WSAEVENT event = WSACreateEvent();
  Answer(event != WSA_INVALID_EVENT, error);
  return event;
}
SOCKET WSPAPI CreateSocketHandle(DWORD, DWORD_PTR, LPINT error) {
  return Refuse<SOCKET>(INVALID_SOCKET, error);
}
int WSPAPI FdIsSet(SOCKET s, fd_set* set) { return __WSAFDIsSet(s, set); }
SOCKET WSPAPI ModifyIfsHandle(DWORD catalog_id, SOCKET proposed, LPINT error) {
  const Provider* provider = StartedProvider(catalog_id);
  if (provider == nullptr) {
    if (error != nullptr) *error = WSAEINVAL;
    return INVALID_SOCKET;
  }
  Own(proposed, *provider);
  return proposed;
}
BOOL WSPAPI PostMessageUpcall(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
  return PostMessageW(window, message, wparam, lparam);
}
int WSPAPI QueryBlockingCallback(DWORD, LPBLOCKINGCALLBACK* callback, PDWORD_PTR context, LPINT) {
  if (callback != nullptr) *callback = nullptr;
  if (context != nullptr) *context = 0;
  return 0;
}
int WSPAPI QuerySocketHandleContext(SOCKET, PDWORD_PTR, LPINT error) {
  return Refuse(SOCKET_ERROR, error);
}
int WSPAPI QueueApc(LPWSATHREADID thread, LPWSAUSERAPC routine, DWORD_PTR context, LPINT error) {
  const bool queued = thread != nullptr && QueueUserAPC(reinterpret_cast<PAPCFUNC>(routine),
                                                        thread->ThreadHandle, context) != 0;
  if (queued) return 0;
  if (error != nullptr) *error = WSAEINVAL;
  return SOCKET_ERROR;
}
BOOL WSPAPI ResetEventUpcall(WSAEVENT event, LPINT error) {
  return Answer(WSAResetEvent(event), error);
}
BOOL WSPAPI SetEventUpcall(WSAEVENT event, LPINT error) {
  return Answer(WSASetEvent(event), error);
}
int WSPAPI OpenCurrentThread(LPWSATHREADID thread, LPINT error) {
  const HANDLE process = GetCurrentProcess();
  const bool ok = thread != nullptr &&
                  DuplicateHandle(process, GetCurrentThread(), process, &thread->ThreadHandle, 0,
                                  FALSE, DUPLICATE_SAME_ACCESS) != FALSE;
  if (ok) return 0;
  if (error != nullptr) *error = WSAEINVAL;
  return SOCKET_ERROR;
}
int WSPAPI CloseThread(LPWSATHREADID thread, LPINT error) {
  if (thread != nullptr && CloseHandle(thread->ThreadHandle)) return 0;
  if (error != nullptr) *error = WSAEINVAL;
  return SOCKET_ERROR;
}

}  // namespace

WSPUPCALLTABLE UpcallTable() {
  WSPUPCALLTABLE table = {};
  table.lpWPUCloseEvent = CloseEvent;
  table.lpWPUCloseSocketHandle = CloseSocketHandle;
  table.lpWPUCreateEvent = CreateEventUpcall;
  table.lpWPUCreateSocketHandle = CreateSocketHandle;
  table.lpWPUFDIsSet = FdIsSet;
  table.lpWPUGetProviderPath = GetProviderPath;
  table.lpWPUModifyIFSHandle = ModifyIfsHandle;
  table.lpWPUPostMessage = PostMessageUpcall;
  table.lpWPUQueryBlockingCallback = QueryBlockingCallback;
  table.lpWPUQuerySocketHandleContext = QuerySocketHandleContext;
  table.lpWPUQueueApc = QueueApc;
  table.lpWPUResetEvent = ResetEventUpcall;
  table.lpWPUSetEvent = SetEventUpcall;
  table.lpWPUOpenCurrentThread = OpenCurrentThread;
  table.lpWPUCloseThread = CloseThread;
  return table;
}

}  // namespace winsock_host
