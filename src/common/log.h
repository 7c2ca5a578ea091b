// Two outputs: the log file of a served process, and the debugger output for every process.
//
// Any thread may call anything here at any time, even before the log file is opened or while the
// process ends. Nothing here throws, waits, changes the thread's last error or reports a failure:
// the host must never notice that it is being logged.
//
// Call sites use LSP_LOG. Its level test is the first thing evaluated, so a silent level costs one
// comparison and none of its arguments. The format is written out at the call site, so that a line
// from a log file can be found in the source.
//
// Levels: 0 details of each call and datagram, 4 events of a socket's life and decisions,
// 5 failures and rare key events.
#pragma once
#include <atomic>

#include "common/types.h"

// The style of formats that the compiler checks. On Windows, the C runtime used here does its own
// formatting, which understands both %llu and %Id; ms_printf is the only check that accepts both.
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

// The lowest level that call sites write, from the process's configuration. Zero until a
// configuration is installed.
inline std::atomic<u32> log_threshold{0};

inline bool IsLogged(int level) noexcept {
  return log_threshold.load(std::memory_order_relaxed) <= static_cast<u32>(level);
}

// For the function that replaces the process's configuration, and for tests.
inline void SetLogThreshold(u32 lowest_level) noexcept {
  log_threshold.store(lowest_level, std::memory_order_relaxed);
}

// Writes one line with the tag "lsp" to the log file. Has no level test: use LSP_LOG. A null
// format does nothing.
void LspLog(int level, const char* format, ...) noexcept VYR_PRINTF(2, 3);

// The same with the caller's own tag, and for longer messages. Some threads of the host have little
// stack, so a message that LspLog would cut is formatted on the heap, and cut only if there is no
// memory. An empty tag is left out. Has no level test: use COMMON_LOG.
void CommonLog(int level, const char* tag, const char* format, ...) noexcept VYR_PRINTF(3, 4);

// Writes to the debugger output at any log level: for start-up, which runs before there is a log
// file, and in processes that never get one. A null format does nothing.
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
