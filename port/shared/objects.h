// Kernel objects: counted by their handles, found by handle or by name.
//
// One table serves the whole machine. Each handle belongs to the process that created it, so the
// end of a process can close the handles that it left open. All names share one namespace, as on
// Windows: opening a name as another kind of object fails with ERROR_INVALID_HANDLE. A name is
// freed with the last handle of its object, even while a view or a waiting thread keeps the object
// alive.
//
// Threads: every function may be called from any thread. The table's lock is a leaf.
#pragma once
#include <windows.h>

#include <memory>
#include <string>

namespace port {

class Object {
 public:
  virtual ~Object() = default;
  virtual const char* kind() const = 0;  // "mutex", "event", …; equal pointers are not promised

  // Called once, after the last handle is closed and outside the table's lock.
  virtual void OnLastHandleClosed() {}

  const std::string& name() const { return name_; }  // empty: unnamed

 private:
  friend class ObjectTable;
  std::string name_;
  int handles_ = 0;
};
using ObjectRef = std::shared_ptr<Object>;

// A new handle for an object, owned by the calling thread's process. Handle values are multiples of
// four and are never reused.
HANDLE NewHandle(ObjectRef object);

// Null for a handle that is not open; sets no error.
ObjectRef Lookup(HANDLE handle);

// Null with ERROR_INVALID_HANDLE for a handle that is not open or not a T.
template <class T>
std::shared_ptr<T> LookupAs(HANDLE handle) {
  auto object = std::dynamic_pointer_cast<T>(Lookup(handle));
  if (!object) SetLastError(ERROR_INVALID_HANDLE);
  return object;
}

// False for a handle that is not open; sets no error.
bool Close(HANDLE handle);

// Closes every handle that the process of that id has left open.
void CloseHandlesOf(DWORD pid);

// How many handles and views are open in total, for tests that look for leaks.
size_t OpenHandles();
size_t OpenViews();        // mappings.cpp
size_t OpenAllocations();  // memory.cpp: blocks of VirtualAlloc

// Opens the object of that name and kind, or creates one with `make`. A null or empty name creates
// an unnamed object. The last error is 0, or ERROR_ALREADY_EXISTS if the object existed. The result
// is null with ERROR_INVALID_HANDLE if the name belongs to another kind, and null with the error
// that `make` set if `make` returns null. `make` runs under the table's lock.
HANDLE CreateNamed(const char* name, const char* kind, const std::function<ObjectRef()>& make);

// Null with ERROR_FILE_NOT_FOUND for an unknown name, ERROR_INVALID_HANDLE for another kind.
HANDLE OpenNamed(const char* name, const char* kind);

}  // namespace port
