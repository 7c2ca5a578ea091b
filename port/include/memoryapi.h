// What is known about pages of memory.
#ifndef VYR_PORT_MEMORYAPI_H
#define VYR_PORT_MEMORYAPI_H
#include <windows.h>

#define SEC_RESERVE 0x4000000u  // of a mapping: addresses without memory behind them

typedef struct _MEMORY_BASIC_INFORMATION {
  PVOID BaseAddress;
  PVOID AllocationBase;
  DWORD AllocationProtect;
  SIZE_T RegionSize;
  DWORD State;
  DWORD Protect;
  DWORD Type;
} MEMORY_BASIC_INFORMATION, *PMEMORY_BASIC_INFORMATION;

// Only for the beginning of a view. Fills in where it is, how long, and its state.
SIZE_T WINAPI VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION out, SIZE_T size);

#endif  // VYR_PORT_MEMORYAPI_H
