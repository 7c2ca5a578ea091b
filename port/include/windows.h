// The Win32 calls that the product and the devkit make, for machines that lack them.
//
// Declarations only: port/posix and port/sim implement them. Names, values, argument order and
// error numbers are those of the Windows SDK documentation. Two things differ on purpose: wchar_t
// is 4 bytes here (a wide string holds UTF-32), and a DWORD is an unsigned int, so a value printed
// with %lu is cast first.
//
// Threads: every call may be made from any thread. Errors: as on Windows, the return value
// reports failure and GetLastError gives the reason.
#ifndef VYR_PORT_WINDOWS_H
#define VYR_PORT_WINDOWS_H

// The host's own headers are included here, before winsock2.h renames the names that they share
// with Winsock. A later include of them then has no effect.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#define WINAPI
#define CALLBACK
#define APIENTRY
#define CONST const
#define VOID void
#define IN
#define OUT
#define FAR

typedef int BOOL;
typedef unsigned char BYTE;
typedef uint8_t UCHAR, UINT8;
typedef uint16_t WORD, USHORT, UINT16;
typedef int16_t SHORT;
typedef uint32_t DWORD, UINT, ULONG, UINT32;
typedef int32_t INT, LONG, INT32;
typedef int64_t LONGLONG, INT64;
typedef uint64_t ULONGLONG, DWORDLONG, UINT64;
typedef intptr_t INT_PTR, LONG_PTR;
typedef uintptr_t UINT_PTR, ULONG_PTR, DWORD_PTR, SIZE_T;
typedef char CHAR;
typedef wchar_t WCHAR;
typedef void *PVOID, *LPVOID, *HANDLE;
typedef const void* LPCVOID;
typedef BOOL* LPBOOL;
typedef INT* LPINT;
typedef DWORD *PDWORD, *LPDWORD;
typedef LONG *PLONG, *LPLONG;
typedef CHAR *PCHAR, *LPSTR;
typedef const CHAR *PCSTR, *LPCSTR;
typedef WCHAR *PWCHAR, *LPWSTR;
typedef const WCHAR *PCWSTR, *LPCWSTR;
typedef HANDLE *PHANDLE, HGLOBAL;
typedef struct HMODULE_* HMODULE;
typedef HMODULE HINSTANCE;
typedef int(WINAPI* FARPROC)();

#define TRUE 1
#define FALSE 0
#define MAX_PATH 260
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1)))
#define MAKEWORD(low, high) (static_cast<WORD>(((low)&0xff) | (((high)&0xff) << 8)))
#define LOBYTE(w) (static_cast<BYTE>((w)&0xff))
#define HIBYTE(w) (static_cast<BYTE>(((w) >> 8) & 0xff))

typedef struct _GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
} GUID, UUID, *LPGUID;
static_assert(sizeof(GUID) == 16);
inline bool operator==(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// --- errors -------------------------------------------------------------------------------
#define ERROR_SUCCESS 0
#define NO_ERROR 0
#define ERROR_FILE_NOT_FOUND 2
#define ERROR_PATH_NOT_FOUND 3
#define ERROR_ACCESS_DENIED 5
#define ERROR_INVALID_HANDLE 6
#define ERROR_NOT_ENOUGH_MEMORY 8
#define ERROR_SHARING_VIOLATION 32
#define ERROR_NOT_SUPPORTED 50
#define ERROR_FILE_EXISTS 80
#define ERROR_INVALID_PARAMETER 87
#define ERROR_INSUFFICIENT_BUFFER 122
#define ERROR_INVALID_NAME 123
#define ERROR_MOD_NOT_FOUND 126
#define ERROR_PROC_NOT_FOUND 127
#define ERROR_ALREADY_EXISTS 183
#define ERROR_NOT_OWNER 288
#define ERROR_IO_PENDING 997
#define ERROR_NO_UNICODE_TRANSLATION 1113

DWORD WINAPI GetLastError();
void WINAPI SetLastError(DWORD error);

// --- time ---------------------------------------------------------------------------------
typedef struct _SYSTEMTIME {
  WORD wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
} SYSTEMTIME, *LPSYSTEMTIME;
typedef struct _FILETIME {
  DWORD dwLowDateTime, dwHighDateTime;
} FILETIME, *LPFILETIME;

DWORD WINAPI GetTickCount();  // milliseconds, wraps every 49.7 days
void WINAPI GetLocalTime(LPSYSTEMTIME out);
void WINAPI GetSystemTimeAsFileTime(LPFILETIME out);  // 100 ns since 1 January 1601
void WINAPI Sleep(DWORD ms);

// The C runtime's clock calls, renamed: they must read the simulation's clock, too, and Windows'
// localtime_s has its own argument order and returns 0 or an error number.
time_t vyr_port_time(time_t* out);
int vyr_port_localtime_s(struct tm* out, const time_t* when);
#define time(...) vyr_port_time(__VA_ARGS__)
#define localtime_s(...) vyr_port_localtime_s(__VA_ARGS__)

// --- the C runtime's extras ---------------------------------------------------------------
int rand_s(unsigned int* out);  // 0 on success
#define _stricmp strcasecmp
#define _strnicmp strncasecmp

// --- threads and locks --------------------------------------------------------------------
#define INFINITE 0xffffffffu
#define WAIT_OBJECT_0 0u
#define WAIT_ABANDONED 0x80u
#define WAIT_TIMEOUT 258u
#define WAIT_FAILED 0xffffffffu
#define STILL_ACTIVE 259u
#define SYNCHRONIZE 0x00100000u
#define EVENT_MODIFY_STATE 0x0002u
#define CREATE_SUSPENDED 4u

typedef struct _SECURITY_ATTRIBUTES {
  DWORD nLength;
  LPVOID lpSecurityDescriptor;
  BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;
typedef DWORD(WINAPI* LPTHREAD_START_ROUTINE)(LPVOID);

HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T stack_size, LPTHREAD_START_ROUTINE start,
                           LPVOID parameter, DWORD flags, LPDWORD id);
// Ends the thread at its next port call, never asynchronously.
BOOL WINAPI TerminateThread(HANDLE thread, DWORD exit_code);
BOOL WINAPI GetExitCodeThread(HANDLE thread, LPDWORD exit_code);
// May or may not find a thread that has ended. Fails with ERROR_INVALID_PARAMETER if it does not.
HANDLE WINAPI OpenThread(DWORD access, BOOL inherit, DWORD id);
HANDLE WINAPI GetCurrentThread();
DWORD WINAPI GetCurrentThreadId();
DWORD WINAPI GetCurrentProcessId();

// Recursive. The state is behind the pointer, so the record may be moved only before its first use.
typedef struct _CRITICAL_SECTION {
  void* state;
} CRITICAL_SECTION, *LPCRITICAL_SECTION;
void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION);
void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION);
void WINAPI EnterCriticalSection(LPCRITICAL_SECTION);
BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION);
void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION);

// --- waitable objects ---------------------------------------------------------------------
HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES, BOOL initial_owner, LPCSTR name);
HANDLE WINAPI OpenMutexA(DWORD access, BOOL inherit, LPCSTR name);
BOOL WINAPI ReleaseMutex(HANDLE mutex);
HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES, BOOL manual_reset, BOOL initial, LPCSTR name);
HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manual_reset, BOOL initial, LPCWSTR name);
HANDLE WINAPI OpenEventA(DWORD access, BOOL inherit, LPCSTR name);
BOOL WINAPI SetEvent(HANDLE event);
BOOL WINAPI ResetEvent(HANDLE event);
DWORD WINAPI WaitForSingleObject(HANDLE object, DWORD timeout_ms);
BOOL WINAPI CloseHandle(HANDLE handle);

// --- file mappings ------------------------------------------------------------------------
#define PAGE_READONLY 2u
#define PAGE_READWRITE 4u
#define FILE_MAP_WRITE 2u
#define FILE_MAP_READ 4u
#define FILE_MAP_ALL_ACCESS 0xf001fu

// Only mappings backed by the page file: `file` must be INVALID_HANDLE_VALUE.
HANDLE WINAPI CreateFileMappingA(HANDLE file, LPSECURITY_ATTRIBUTES, DWORD protect, DWORD size_high,
                                 DWORD size_low, LPCSTR name);
HANDLE WINAPI OpenFileMappingA(DWORD access, BOOL inherit, LPCSTR name);
// Fails (5, access denied) if the view would extend past the end of the mapping.
LPVOID WINAPI MapViewOfFile(HANDLE mapping, DWORD access, DWORD offset_high, DWORD offset_low,
                            SIZE_T size);
BOOL WINAPI UnmapViewOfFile(LPCVOID view);

// --- files and paths ----------------------------------------------------------------------
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 1u
#define FILE_SHARE_WRITE 2u
#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define FILE_ATTRIBUTE_DIRECTORY 0x10u
#define FILE_ATTRIBUTE_NORMAL 0x80u
#define INVALID_FILE_ATTRIBUTES 0xffffffffu
#define INVALID_FILE_SIZE 0xffffffffu
#define INVALID_SET_FILE_POINTER 0xffffffffu
#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u

typedef union _LARGE_INTEGER {
  struct {
    DWORD LowPart;
    LONG HighPart;
  } u;
  LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

BOOL WINAPI QueryPerformanceCounter(LARGE_INTEGER* count);
BOOL WINAPI QueryPerformanceFrequency(LARGE_INTEGER* per_second);
typedef struct _OVERLAPPED {
  ULONG_PTR Internal, InternalHigh;
  DWORD Offset, OffsetHigh;
  HANDLE hEvent;
} OVERLAPPED, *LPOVERLAPPED;

HANDLE WINAPI CreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES,
                          DWORD disposition, DWORD flags, HANDLE template_file);
BOOL WINAPI ReadFile(HANDLE file, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED);
BOOL WINAPI WriteFile(HANDLE file, LPCVOID buffer, DWORD size, LPDWORD written, LPOVERLAPPED);
BOOL WINAPI GetFileSizeEx(HANDLE file, PLARGE_INTEGER out);
DWORD WINAPI GetFileSize(HANDLE file, LPDWORD high);
BOOL WINAPI SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER out, DWORD method);
BOOL WINAPI SetEndOfFile(HANDLE file);
BOOL WINAPI CreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES);
DWORD WINAPI GetFileAttributesW(LPCWSTR path);
BOOL WINAPI DeleteFileW(LPCWSTR path);

DWORD WINAPI GetPrivateProfileStringW(LPCWSTR section, LPCWSTR key, LPCWSTR fallback, LPWSTR out,
                                      DWORD size, LPCWSTR path);
UINT WINAPI GetPrivateProfileIntW(LPCWSTR section, LPCWSTR key, INT fallback, LPCWSTR path);

// --- text ---------------------------------------------------------------------------------
#define CP_ACP 0u  // here: code page 1252, characters outside it become '?'
#define CP_UTF8 65001u
#define MB_ERR_INVALID_CHARS 8u
#define WC_ERR_INVALID_CHARS 0x80u

int WINAPI WideCharToMultiByte(UINT code_page, DWORD flags, LPCWSTR in, int in_size, LPSTR out,
                               int out_size, LPCSTR default_char, LPBOOL used_default);
int WINAPI MultiByteToWideChar(UINT code_page, DWORD flags, LPCSTR in, int in_size, LPWSTR out,
                               int out_size);
DWORD WINAPI ExpandEnvironmentStringsW(LPCWSTR in, LPWSTR out, DWORD size);
DWORD WINAPI ExpandEnvironmentStringsA(LPCSTR in, LPSTR out, DWORD size);

// --- process and modules ------------------------------------------------------------------
DWORD WINAPI GetModuleFileNameW(HMODULE module, LPWSTR out, DWORD size);
LPSTR WINAPI GetCommandLineA();
HMODULE WINAPI LoadLibraryW(LPCWSTR path);
HMODULE WINAPI LoadLibraryA(LPCSTR path);
FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name);
BOOL WINAPI FreeLibrary(HMODULE module);
// Supports one use only: pinning the module that contains an address, with both flags set. The
// module then stays loaded, however often it is freed. An address that no module of
// port/shared/modules.h exports belongs to the program itself.
#define GET_MODULE_HANDLE_EX_FLAG_PIN 1u
#define GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS 4u
BOOL WINAPI GetModuleHandleExW(DWORD flags, LPCWSTR address, HMODULE* out);
void WINAPI OutputDebugStringA(LPCSTR text);

// --- memory -------------------------------------------------------------------------------
#define GMEM_FIXED 0u
#define GMEM_ZEROINIT 0x40u
#define GPTR 0x40u
HGLOBAL WINAPI GlobalAlloc(UINT flags, SIZE_T size);
HGLOBAL WINAPI GlobalFree(HGLOBAL memory);

#define MEM_COMMIT 0x1000u
#define MEM_RESERVE 0x2000u
#define MEM_RELEASE 0x8000u
// Supports one use only: zeroed pages, readable and writable, at an address that the system
// chooses.
LPVOID WINAPI VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protect);
BOOL WINAPI VirtualFree(LPVOID address, SIZE_T size, DWORD type);  // size 0, MEM_RELEASE

#endif  // VYR_PORT_WINDOWS_H
