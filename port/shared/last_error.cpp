// One last error for each thread, shared by the Win32 and Winsock calls, as on Windows.
#include "port/shared/backend.h"

DWORD WINAPI GetLastError() { return port::CurrentThreadState().last_error; }

void WINAPI SetLastError(DWORD error) { port::CurrentThreadState().last_error = error; }

int WSAAPI WSAGetLastError() { return static_cast<int>(GetLastError()); }

void WSAAPI WSASetLastError(int error) { SetLastError(static_cast<DWORD>(error)); }
