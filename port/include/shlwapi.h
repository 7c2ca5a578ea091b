// The shell's path calls. They handle backslashes and drive letters on every platform.
#pragma once
#include <windows.h>

BOOL WINAPI PathRemoveFileSpecW(LPWSTR path);
BOOL WINAPI PathFileExistsW(LPCWSTR path);
