// The shell's path calls. They know backslashes and drive letters, on every machine.
#pragma once
#include <windows.h>

BOOL WINAPI PathRemoveFileSpecW(LPWSTR path);
BOOL WINAPI PathFileExistsW(LPCWSTR path);
