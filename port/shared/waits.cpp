// Events and mutexes by name and handle; the backend implements the objects.
#include "port/shared/backend.h"
#include "port/shared/faults.h"
#include "port/shared/objects.h"
#include "port/shared/text.h"

namespace port {
namespace {

HANDLE CreateEventNamed(const char* name, BOOL manual_reset, BOOL initial) {
  return CreateNamed(name, "event", [&] { return NewEvent(manual_reset != 0, initial != 0); });
}

HANDLE OpenKind(LPCSTR name, const char* kind) {
  if (name) return OpenNamed(name, kind);
  SetLastError(ERROR_INVALID_PARAMETER);
  return nullptr;
}

}  // namespace
}  // namespace port

HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES, BOOL initial_owner, LPCSTR name) {
  if (port::Fails("CreateMutexA")) return nullptr;
  return port::CreateNamed(name, "mutex", [&] { return port::NewMutex(initial_owner != 0); });
}

HANDLE WINAPI OpenMutexA(DWORD, BOOL, LPCSTR name) {
  if (port::Fails("OpenMutexA")) return nullptr;
  return port::OpenKind(name, "mutex");
}

HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES, BOOL manual_reset, BOOL initial, LPCSTR name) {
  if (port::Fails("CreateEventA")) return nullptr;
  return port::CreateEventNamed(name, manual_reset, initial);
}

HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manual_reset, BOOL initial, LPCWSTR name) {
  if (port::Fails("CreateEventW")) return nullptr;
  return port::CreateEventNamed(name ? port::Utf8(name).c_str() : nullptr, manual_reset, initial);
}

HANDLE WINAPI OpenEventA(DWORD, BOOL, LPCSTR name) {
  if (port::Fails("OpenEventA")) return nullptr;
  return port::OpenKind(name, "event");
}

BOOL WINAPI SetEvent(HANDLE handle) {
  return port::Fails("SetEvent") ? FALSE : port::ChangeEvent(handle, true);
}

BOOL WINAPI ResetEvent(HANDLE handle) {
  return port::Fails("ResetEvent") ? FALSE : port::ChangeEvent(handle, false);
}
