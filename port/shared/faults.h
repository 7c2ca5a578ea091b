// Failure on demand: the n-th call of a named Windows call fails with a chosen error.
//
//   port::FailCall("CreateMutexA", 1, ERROR_ACCESS_DENIED);   // the next one
//   port::FailCall("WSPSend", 0, WSAENOBUFS);                 // every one, until cleared
//
// The names are those of the calls ("connect", "CreateFileW") and, for the base provider's
// entries, those of the interface ("WSPConnect"). While nothing is asked for, a call pays one
// relaxed load.
#pragma once
#include <windows.h>

#include <atomic>

namespace port {

// `nth` counts from 1, from this call on; 0 fails every call. Several may be set for one name.
void FailCall(const std::string& name, unsigned nth, DWORD error);

// The n-th ReadFile from now on reads no more than that many bytes.
void ShortRead(unsigned nth, DWORD bytes);

// Removes all faults and counts, and stops counting.
void ClearFaults();

// Counts calls from now on (a fault that is set does so too).
void CountCalls();

// True: plain socket calls that succeed leave the last error as it was; otherwise they clear it.
// Neither is documented.
void SuccessKeepsLastError(bool keeps);
bool DoesSuccessKeepLastError();

// The last error that plain socket calls leave when they succeed, from now on; 0, the default. For
// providers below that set one although nothing has failed.
void SuccessLeavesLastError(DWORD error);
DWORD LastErrorOfSuccess();

// Calls of that name since counting began, failed ones included.
unsigned CallCount(const std::string& name);

// Every call that can fail asks this first. True: the last error is set, and the caller returns its
// failure value at once.
bool Fails(const char* name);

// The same for calls that hand their error through a pointer.
bool Fails(const char* name, LPINT error);

// How many bytes a read of that size may return.
DWORD SizeToRead(DWORD size);

}  // namespace port
