// One error number a thread, shared by both families of calls, as on Windows.
#include "port/shared/backend.h"

DWORD WINAPI GetLastError() { return port::CurrentThreadState().last_error; }

void WINAPI SetLastError(DWORD error) { port::CurrentThreadState().last_error = error; }

int WSAAPI WSAGetLastError() { return static_cast<int>(GetLastError()); }

void WSAAPI WSASetLastError(int error) { SetLastError(static_cast<DWORD>(error)); }
