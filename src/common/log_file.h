// The file that the log lines of one process run go to.
//
// Any thread may call anything, and no thread waits for a busy logger: it tries the lock a hundred
// times, then the line is lost. Lines are collected, and written when the next one would exceed
// 1024 bytes and when the object ends; a crash loses the collected lines.
#pragma once
#include <atomic>
#include <string>
#include <string_view>

#include "common/handle.h"
#include "common/lock.h"
#include "common/types.h"

namespace common {

class LogFile {
 public:
  static constexpr std::size_t kFlushThreshold = 1024;  // bytes of collected text
  static constexpr u64 kMaxSizeAtOpening = 20971520;    // a file this large starts afresh
  static constexpr u64 kMaxWrittenTotal = 209715200;    // per run; then the file stays as it is
  static constexpr int kLockTries = 100;
  static constexpr int kInitialLevel = 4;

  explicit LogFile(u64 max_written_total = kMaxWrittenTotal) noexcept;
  ~LogFile();

  // Appends to the file of this UTF-8 path, and creates it and its directories if they are missing.
  // True if the file is open, even if it was open before (under any path).
  bool Open(const std::string& path) noexcept;

  void SetLevel(int level) noexcept;  // lines below it are dropped
  int GetLevel() const noexcept;

  // Whether lines are dropped once the total of a run has been written. Otherwise they stay in
  // memory, see FlushLocked.
  void SetDropsPastTotal(bool drops) noexcept;
  bool DropsPastTotal() const noexcept;

  // False if the line is lost: no open file, a busy lock, no memory.
  bool Write(std::string_view line, int level) noexcept;
  void Flush() noexcept;

  // Writes what was collected and closes the file; later lines are dropped. If the lock stays
  // taken, it gives up and the text is lost: at process end the lock's owner may be a thread of the
  // host that the platform has killed, and waiting for it would hang the host.
  void Shut() noexcept;

 private:
  bool TryLock() noexcept;
  bool OpenLocked(const std::wstring& wide_path);
  bool OpenHandle(const std::wstring& wide_path) noexcept;
  void FlushLocked() noexcept;

  std::atomic<bool> is_open_{false};
  std::atomic<int> min_level_{kInitialLevel};
  std::atomic<bool> drops_past_total_{false};
  Mutex lock_;  // guards what follows, and the changes of is_open_
  UniqueHandle file_;
  std::string buffer_;
  u64 written_total_ = 0;
  const u64 max_written_total_;
};

// The process's log file. It is closed when the process ends and never destroyed, so threads that
// still run then find a closed file and not a dead object.
LogFile& GetLogFile() noexcept;

}  // namespace common
