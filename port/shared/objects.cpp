#include "port/shared/objects.h"

#include <map>
#include <vector>

#include "port/shared/backend.h"
#include "port/shared/faults.h"
#include "port/shared/process.h"

namespace port {

class ObjectTable {
 public:
  static ObjectTable& Instance() {
    static ObjectTable& table = *new ObjectTable;  // threads may outlive static destruction
    return table;
  }

  HANDLE Add(ObjectRef object, DWORD pid) {
    std::lock_guard hold(lock_);
    return AddLocked(std::move(object), pid);
  }

  ObjectRef Find(HANDLE handle) {
    std::lock_guard hold(lock_);
    auto at = handles_.find(handle);
    return at == handles_.end() ? nullptr : at->second.object;
  }

  bool Remove(HANDLE handle) {
    ObjectRef object;
    {
      std::lock_guard hold(lock_);
      auto at = handles_.find(handle);
      if (at == handles_.end()) return false;
      object = std::move(at->second.object);
      handles_.erase(at);
      if (--object->handles_ > 0) return true;
      if (!object->name_.empty()) names_.erase(object->name_);
    }
    object->OnLastHandleClosed();
    return true;
  }

  HANDLE Create(const std::string& name, const char* kind, const std::function<ObjectRef()>& make,
                DWORD pid) {
    std::lock_guard hold(lock_);
    if (auto at = names_.find(name); at != names_.end()) {
      if (std::strcmp(at->second->kind(), kind) != 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
      }
      SetLastError(ERROR_ALREADY_EXISTS);
      return AddLocked(at->second, pid);
    }
    SetLastError(0);
    ObjectRef object = make();
    if (!object) return nullptr;
    object->name_ = name;
    if (!name.empty()) names_[name] = object;
    return AddLocked(std::move(object), pid);
  }

  HANDLE Open(const std::string& name, const char* kind, DWORD pid) {
    std::lock_guard hold(lock_);
    auto at = names_.find(name);
    if (at == names_.end()) {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return nullptr;
    }
    if (std::strcmp(at->second->kind(), kind) != 0) {
      SetLastError(ERROR_INVALID_HANDLE);
      return nullptr;
    }
    return AddLocked(at->second, pid);
  }

  std::vector<HANDLE> HandlesOf(DWORD pid) {
    std::lock_guard hold(lock_);
    std::vector<HANDLE> found;
    for (const auto& [handle, entry] : handles_)
      if (entry.pid == pid) found.push_back(handle);
    return found;
  }

  size_t size() {
    std::lock_guard hold(lock_);
    return handles_.size();
  }

 private:
  struct Entry {
    ObjectRef object;
    DWORD pid;
  };

  HANDLE AddLocked(ObjectRef object, DWORD pid) {
    next_ += 4;
    HANDLE handle = reinterpret_cast<HANDLE>(next_);
    ++object->handles_;
    handles_[handle] = {std::move(object), pid};
    return handle;
  }

  std::mutex lock_;
  uintptr_t next_ = 0x40;
  std::map<HANDLE, Entry> handles_;
  std::map<std::string, ObjectRef> names_;  // of the objects that have an open handle
};

namespace {

// Names are per session; the prefix "Local\\" makes that default explicit.
std::string SessionName(const char* name) {
  std::string text = name ? name : "";
  if (text.rfind("Local\\", 0) == 0) text.erase(0, 6);
  return text;
}

}  // namespace

HANDLE NewHandle(ObjectRef object) {
  return ObjectTable::Instance().Add(std::move(object), CurrentProcess().pid);
}

ObjectRef Lookup(HANDLE handle) { return ObjectTable::Instance().Find(handle); }

bool Close(HANDLE handle) { return ObjectTable::Instance().Remove(handle); }

void CloseHandlesOf(DWORD pid) {
  for (HANDLE handle : ObjectTable::Instance().HandlesOf(pid)) Close(handle);
}

size_t OpenHandles() { return ObjectTable::Instance().size(); }

HANDLE CreateNamed(const char* name, const char* kind, const std::function<ObjectRef()>& make) {
  return ObjectTable::Instance().Create(SessionName(name), kind, make, CurrentProcess().pid);
}

HANDLE OpenNamed(const char* name, const char* kind) {
  return ObjectTable::Instance().Open(SessionName(name), kind, CurrentProcess().pid);
}

}  // namespace port

BOOL WINAPI CloseHandle(HANDLE handle) {
  if (port::Fails("CloseHandle")) return FALSE;
  if (port::Close(handle)) return TRUE;
  SetLastError(ERROR_INVALID_HANDLE);
  return FALSE;
}
