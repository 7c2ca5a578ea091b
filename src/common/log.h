// Two outputs: the log file of a served process, and the debugger output for every process.
//
// Any thread may call anything here, at any time, even before the log file is opened and while the
// process ends. Nothing throws, nothing waits, the thread's last error is the same after the call,
// and no failure is reported: the host must never notice that it is being logged.
//
// Call sites use LSP_LOG. Its level test is the first thing evaluated, so a silent level costs
// one comparison and none of its arguments. The format stands whole at the call site, so that a
// line found in a log file can be searched for in the source.
//
// Levels: 0 details of each call and datagram, 4 events of a socket's life and decisions,
// 5 failures and rare key events.
#pragma once
#include <atomic>

#include "common/types.h"

// What the compiler checks formats against. The C runtime used here brings its own formatting on
// Windows, where %llu and %Id both work; of the compiler's checks ms_printf alone knows both.
#ifdef __MINGW_PRINTF_FORMAT
#define VYR_PRINTF(format_index, first_argument) \
  __attribute__((format(ms_printf, format_index, first_argument)))
#else
#define VYR_PRINTF(format_index, first_argument) \
  __attribute__((format(printf, format_index, first_argument)))
#endif

namespace common {

// Maximum message lengths, terminator included; longer messages are cut.
inline constexpr int kMaxLogMessage = 2048;
inline constexpr int kMaxCommonLogMessage = 102400;

// The lowest level that call sites write, as the process's configuration has it. Zero until a
// configuration is installed, as the configuration itself is.
inline std::atomic<u32> log_threshold{0};

inline bool IsLogged(int level) noexcept {
  return log_threshold.load(std::memory_order_relaxed) <= static_cast<u32>(level);
}

// For the one function that replaces the process's configuration, and for tests.
inline void SetLogThreshold(u32 lowest_level) noexcept {
  log_threshold.store(lowest_level, std::memory_order_relaxed);
}

// Writes one line with the tag "lsp" to the log file. Has no level test: use LSP_LOG. A null
// format does nothing.
void LspLog(int level, const char* format, ...) noexcept VYR_PRINTF(2, 3);

// The same with a caller's tag, and for long messages too. The threads are the host's, some of them
// with little stack, so a message that LspLog would cut is formatted on the heap; if the heap has
// no room it is cut as well. An empty tag leaves the tag out. Has no level test: use COMMON_LOG.
void CommonLog(int level, const char* tag, const char* format, ...) noexcept VYR_PRINTF(3, 4);

// Goes to the debugger output, whatever the levels are: for start-up, which runs before there is
// a log file and in processes that never get one. A null format does nothing.
void LspTrace(const char* format, ...) noexcept VYR_PRINTF(1, 2);

}  // namespace common

#define LSP_LOG(level, ...)                                              \
  do {                                                                   \
    if (::common::IsLogged(level)) ::common::LspLog(level, __VA_ARGS__); \
  } while (false)

#define COMMON_LOG(level, tag, ...)                                              \
  do {                                                                           \
    if (::common::IsLogged(level)) ::common::CommonLog(level, tag, __VA_ARGS__); \
  } while (false)
