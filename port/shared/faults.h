// Failure on demand: the n-th call of a named Windows call fails with a chosen error.
//
//   port::FailCall("CreateMutexA", 1, ERROR_ACCESS_DENIED);   // the next one
//   port::FailCall("WSPSend", 0, WSAENOBUFS);                 // every one, until cleared
//
// The names are those of the calls ("connect", "CreateFileW"); the base provider's entries have the
// names of the interface ("WSPConnect"). While no fault is set, a call costs one relaxed load more.
#pragma once
#include <windows.h>

#include <atomic>

namespace port {

// `nth` counts from 1, from this call on; 0 fails every call. Several may be set for one name.
void FailCall(const std::string& name, unsigned nth, DWORD error);

// The n-th ReadFile from now on reads at most that many bytes.
void ShortRead(unsigned nth, DWORD bytes);

// Removes all faults and counts, and stops counting.
void ClearFaults();

// Counts calls from now on. FailCall does so, too.
void CountCalls();

// If true, plain socket calls that succeed leave the last error unchanged; otherwise they clear it.
// Neither is documented.
void SuccessKeepsLastError(bool keeps);
bool DoesSuccessKeepLastError();

// Sets the last error that plain socket calls leave when they succeed; 0 by default. Imitates base
// providers that set an error although nothing has failed.
void SuccessLeavesLastError(DWORD error);
DWORD LastErrorOfSuccess();

// Calls of that name since counting began, failed ones included.
unsigned CallCount(const std::string& name);

// Every call that can fail checks this first. If true, the last error is set, and the call returns
// its failure value at once.
bool Fails(const char* name);

// The same for calls that return their error through a pointer.
bool Fails(const char* name, LPINT error);

// How many bytes a read of that size may return.
DWORD SizeToRead(DWORD size);

}  // namespace port
