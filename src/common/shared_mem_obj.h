// A record in named shared memory, as this library and the client program exchange them.
//
// Plain: the mapping is the record, and a named mutex is held from Open to Close, even if the Open
// failed. So every Open needs a Close on every path, with no more than one copy in between.
//
// Double-buffered: the mapping is a word that selects one of two copies of the record. A writer
// fills the copy that is not selected and Close flips the word, so readers need no mutex and see
// the old copy or the new one, never a mixture. Two writers at once are not supported.
//
// The first to open a region creates the mapping; call Exists first if a missing region must stay
// missing.
// An object has no lock of its own: its owner serialises its use.
#pragma once
#include <cstring>
#include <string>

#include "common/handle.h"
#include "common/log.h"
#include "common/named_mutex.h"
#include "common/shared_mem_header.h"
#include "common/types.h"

namespace common {

inline constexpr int kOpenForWriting = 1;
inline constexpr int kOpenForReading = 2;

class Shared_mem_obj {
 public:
  // `size` is that of the record, header included. Waits for the mutex without limit. Failures show
  // at Open.
  Shared_mem_obj(const std::string& name, u32 size, const std::string& mutex_name,
                 bool double_buffered);
  ~Shared_mem_obj();

  // The address of the record, or null (with a log line that says why). `check` compares the
  // record's header with what this library expects. The record of a reader is write-protected.
  void* Open(int mode, bool check) noexcept;
  void Close() noexcept;

  static bool Exists(const std::string& name) noexcept;

  const std::string& name() const noexcept { return name_; }
  u32 size() const noexcept { return size_; }
  // Whether the mutex exists. If it does, it also serialises this process's own threads.
  bool guarded() const noexcept { return mutex_.exists(); }

 private:
  void CreateMapping() noexcept;
  u8* SelectRecord() const noexcept;
  bool CheckHeader(const u8* record) const noexcept;

  UniqueHandle mapping_;
  u8* view_ = nullptr;  // null while closed
  NamedMutex mutex_;
  const std::string name_;
  const u32 size_;
  const u32 mapped_size_;
  int open_mode_ = 0;  // of the last Open
  const bool double_buffered_;
  bool view_is_writable_ = false;  // a view keeps the access that it was mapped with
};

// Closes the object at the end of a scope, whether the Open succeeded or not.
class Shared_mem_closer {
 public:
  explicit Shared_mem_closer(Shared_mem_obj* object) noexcept : object_(object) {}
  ~Shared_mem_closer() { object_->Close(); }
  Shared_mem_closer(const Shared_mem_closer&) = delete;
  Shared_mem_closer& operator=(const Shared_mem_closer&) = delete;

 private:
  Shared_mem_obj* const object_;
};

// Opens the object's record as a T, whose first word must hold T's own size; null if it does not.
// Never closes: the object's Close is required on every path, even where this is null.
template <typename T>
class Shared_mem_ptr {
 public:
  Shared_mem_ptr(Shared_mem_obj* object, int mode, bool check) noexcept
      : record_(static_cast<T*>(object->Open(mode, check))), opened_(record_ != nullptr) {
    if (record_ == nullptr) return;
    u32 declared_size = 0;
    std::memcpy(&declared_size, record_, sizeof declared_size);
    if (declared_size == sizeof(T)) return;
    record_ = nullptr;
    COMMON_LOG(
        4, "", "[Shared_mem_obj] Shared_mem_obj(%s,size=%d) template type size(%d) not match.",
        object->name().c_str(), static_cast<int>(object->size()), static_cast<int>(sizeof(T)));
  }

  T* get() const noexcept { return record_; }
  T* operator->() const noexcept { return record_; }
  explicit operator bool() const noexcept { return record_ != nullptr; }

  // Whether there was a record at all, even if of another size.
  bool opened() const noexcept { return opened_; }

 private:
  T* record_;
  const bool opened_;
};

}  // namespace common
