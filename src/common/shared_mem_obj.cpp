#include "common/shared_mem_obj.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <limits>

#include "common/mapped_view.h"

namespace common {
namespace {

// In front of the two copies: which of them readers use.
constexpr u32 kSelectorSize = sizeof(u32);

// What the log shows, as -1, for a record that is too short to have a header.
constexpr u32 kNoHeader = 0xffffffff;

u32 MappedSize(u32 size, bool double_buffered) noexcept {
  assert(size <= (std::numeric_limits<u32>::max() - kSelectorSize) / 2);
  return double_buffered ? size * 2 + kSelectorSize : size;
}

// The word in front, which another process may read or flip at this moment. A view begins on a
// page, so it is aligned.
// A view begins at a page, so its first word is aligned as a word that processors share has to be.
static_assert(std::atomic_ref<u32>::required_alignment <= 4096);

std::atomic_ref<u32> Selector(u8* view) noexcept {
  return std::atomic_ref<u32>(*reinterpret_cast<u32*>(view));
}

// Another process may have left any value in the word.
u32 ActiveIndex(u8* view) noexcept {
  return std::min(Selector(view).load(std::memory_order_acquire), u32{1});
}

// A record shorter than a header holds only the first part of one.
std::size_t HeaderSize(u32 record_size) noexcept {
  return std::min<std::size_t>(record_size, sizeof(SharedMemHeader));
}

void WriteHeader(u8* record, u32 size) noexcept {
  const SharedMemHeader header = {size, kSharedMemMajorVersion, kSharedMemMinorVersion};
  std::memcpy(record, &header, HeaderSize(size));
}

}  // namespace

Shared_mem_obj::Shared_mem_obj(const std::string& name, u32 size, const std::string& mutex_name,
                               bool double_buffered)
    : mutex_(mutex_name),
      name_(name),
      size_(size),
      mapped_size_(MappedSize(size, double_buffered)),
      double_buffered_(double_buffered) {
  const NamedMutexGuard guard(&mutex_, false);
  mapping_.Reset(OpenFileMappingA(FILE_MAP_ALL_ACCESS, TRUE, name_.c_str()));
  if (!mapping_) CreateMapping();
}

Shared_mem_obj::~Shared_mem_obj() {
  if (view_ != nullptr) Close();
}

void Shared_mem_obj::CreateMapping() noexcept {
  mapping_.Reset(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, mapped_size_,
                                    name_.c_str()));
  const bool is_new = GetLastError() != ERROR_ALREADY_EXISTS;
  // Guard: another's after all (opening it failed for some other reason), so its content stays.
  if (!mapping_ || !is_new) return;
  u8* const view = MapMemory(mapping_.get(), FILE_MAP_ALL_ACCESS, mapped_size_);
  if (view == nullptr) {
    mapping_.Reset();
    return;
  }
  std::memset(view, 0, mapped_size_);
  if (double_buffered_) {
    WriteHeader(view + kSelectorSize, size_);
    WriteHeader(view + kSelectorSize + size_, size_);
  } else {
    WriteHeader(view, size_);
  }
  UnmapViewOfFile(view);
}

void* Shared_mem_obj::Open(int mode, bool check) noexcept {
  if (!double_buffered_) mutex_.lock();
  const bool writes = mode != kOpenForReading;
  if (view_ == nullptr && mapping_) {
    view_ = MapMemory(mapping_.get(), writes ? FILE_MAP_ALL_ACCESS : FILE_MAP_READ, mapped_size_);
    view_is_writable_ = writes;
  }
  // Guard: a reader's view that is still open would fault under a writer.
  if (view_ == nullptr || (writes && !view_is_writable_)) {
    COMMON_LOG(4, "", "[Shared_mem_obj]Shared_mem_obj(%s,size=%d) mapped_region create failed",
               name_.c_str(), static_cast<int>(size_));
    return nullptr;
  }
  open_mode_ = mode;
  u8* const record = SelectRecord();
  return check && !CheckHeader(record) ? nullptr : record;
}

u8* Shared_mem_obj::SelectRecord() const noexcept {
  if (!double_buffered_) return view_;
  const u32 active = ActiveIndex(view_);
  const u32 selected = open_mode_ == kOpenForWriting ? 1 - active : active;
  return view_ + kSelectorSize + std::size_t{selected} * size_;
}

// Guard: reads the header once, since another process may be writing it. A record without room for
// a header has no version that could be right.
bool Shared_mem_obj::CheckHeader(const u8* record) const noexcept {
  SharedMemHeader found = {kNoHeader, kNoHeader, kNoHeader};
  const SharedMemHeader expected = {size_, kSharedMemMajorVersion, kSharedMemMinorVersion};
  if (size_ >= sizeof found) std::memcpy(&found, record, sizeof found);
  if (std::memcmp(&found, &expected, sizeof found) == 0) return true;
  COMMON_LOG(4, "",
             "[Shared_mem_obj]Shared_mem_obj(%s,size=%d) open failed,structure not match, "
             "shared_mem_size=%d, major_ver=%d, minor_ver=%d",
             name_.c_str(), static_cast<int>(size_), static_cast<int>(found.shared_mem_size),
             static_cast<int>(found.major_ver), static_cast<int>(found.minor_ver));
  return false;
}

void Shared_mem_obj::Close() noexcept {
  if (view_ != nullptr) {
    if (double_buffered_ && open_mode_ == kOpenForWriting) {
      Selector(view_).store(1 - ActiveIndex(view_), std::memory_order_release);
    }
    UnmapViewOfFile(view_);
    view_ = nullptr;
  }
  if (!double_buffered_) mutex_.unlock();
}

bool Shared_mem_obj::Exists(const std::string& name) noexcept {
  return static_cast<bool>(UniqueHandle(OpenFileMappingA(FILE_MAP_ALL_ACCESS, TRUE, name.c_str())));
}

}  // namespace common
