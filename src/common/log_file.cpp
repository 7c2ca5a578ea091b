#include "common/log_file.h"

#include <new>

#include "common/paths.h"
#include "common/text.h"

namespace common {
namespace {

// Capacity for the collected text: the threshold plus the longest ordinary line, so that ordinary
// lines never make it grow.
constexpr std::size_t kBufferCapacity = 4096;

class ShutAtProcessEnd {
 public:
  explicit ShutAtProcessEnd(LogFile* file) noexcept : file_(file) {}
  ~ShutAtProcessEnd() { file_->Shut(); }

 private:
  LogFile* const file_;
};

}  // namespace

LogFile::LogFile(u64 max_written_total) noexcept : max_written_total_(max_written_total) {}

LogFile::~LogFile() { Shut(); }

bool LogFile::Open(const std::string& path) noexcept {
  if (is_open_.load(std::memory_order_acquire)) return true;
  if (path.empty()) return false;
  try {
    std::wstring wide_path;
    if (!u8to16(path, &wide_path) || !EnsureParentDirectory(wide_path)) return false;
    if (!TryLock()) return false;
    const Lock lock(lock_, AdoptLock{});
    return OpenLocked(wide_path);
  } catch (...) {
    return false;
  }
}

void LogFile::SetLevel(int level) noexcept { min_level_.store(level, std::memory_order_relaxed); }

int LogFile::GetLevel() const noexcept { return min_level_.load(std::memory_order_relaxed); }

void LogFile::SetDropsPastTotal(bool drops) noexcept {
  drops_past_total_.store(drops, std::memory_order_relaxed);
}

bool LogFile::DropsPastTotal() const noexcept {
  return drops_past_total_.load(std::memory_order_relaxed);
}

bool LogFile::Write(std::string_view line, int level) noexcept {
  if (!is_open_.load(std::memory_order_acquire)) return false;
  if (level < GetLevel() || line.empty()) return true;
  if (!TryLock()) return false;
  const Lock lock(lock_, AdoptLock{});
  if (!file_) return false;  // closed since we looked
  if (buffer_.size() + line.size() > kFlushThreshold) FlushLocked();
  try {
    buffer_.append(line);
  } catch (...) {
    return false;  // past the limit of a run the buffer is never emptied again
  }
  return true;
}

void LogFile::Flush() noexcept {
  if (!TryLock()) return;
  const Lock lock(lock_, AdoptLock{});
  if (file_) FlushLocked();
}

void LogFile::Shut() noexcept {
  is_open_.store(false, std::memory_order_release);
  if (!TryLock()) return;
  const Lock lock(lock_, AdoptLock{});
  if (file_) FlushLocked();
  file_.Reset();
}

bool LogFile::TryLock() noexcept {
  for (int tries = 1; !lock_.try_lock(); ++tries) {
    // One of our threads that was terminated while it logged must not end the log as well.
    if (tries == kLockTries) return lock_.inherit_lock();
    Sleep(0);
  }
  return true;
}

bool LogFile::OpenLocked(const std::wstring& wide_path) {
  if (file_) return true;  // another thread was first
  buffer_.reserve(kBufferCapacity);
  if (!OpenHandle(wide_path)) {
    file_.Reset();
    return false;
  }
  is_open_.store(true, std::memory_order_release);
  return true;
}

bool LogFile::OpenHandle(const std::wstring& wide_path) noexcept {
  file_.Reset(CreateFileW(wide_path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                          OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file_) return false;
  LARGE_INTEGER size = {};
  if (!GetFileSizeEx(file_.get(), &size)) return false;
  const LARGE_INTEGER none = {};
  if (static_cast<u64>(size.QuadPart) >= kMaxSizeAtOpening) {
    SetFilePointerEx(file_.get(), none, nullptr, FILE_BEGIN);
    if (!SetEndOfFile(file_.get())) return false;
  }
  SetFilePointerEx(file_.get(), none, nullptr, FILE_END);
  return true;
}

// What could not be written is lost: a full disk must not turn into a full memory.
// Kept: past the total of a run the text stays in memory all the same, and grows by every line.
void LogFile::FlushLocked() noexcept {
  if (buffer_.empty()) return;
  if (written_total_ >= max_written_total_) {
    if (DropsPastTotal()) buffer_.clear();
    return;
  }
  DWORD written = 0;
  WriteFile(file_.get(), buffer_.data(), static_cast<DWORD>(buffer_.size()), &written, nullptr);
  buffer_.clear();
  written_total_ += written;
}

LogFile& GetLogFile() noexcept {
  // In raw memory, because a static object would be destroyed while threads of the host may
  // still log, and because freeing memory at process end may wait for a killed thread's heap lock.
  alignas(LogFile) static unsigned char storage[sizeof(LogFile)];
  static LogFile* const file = new (storage) LogFile;
  static const ShutAtProcessEnd shut_at_process_end(file);
  return *file;
}

}  // namespace common
