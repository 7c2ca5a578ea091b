// The shell's path calls. They handle backslashes and drive letters on every platform.
#ifndef VYR_PORT_SHLWAPI_H
#define VYR_PORT_SHLWAPI_H
#include <windows.h>

BOOL WINAPI PathRemoveFileSpecW(LPWSTR path);
BOOL WINAPI PathFileExistsW(LPCWSTR path);

#endif  // VYR_PORT_SHLWAPI_H
