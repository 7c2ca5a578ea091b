#include "common/log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "common/last_error.h"
#include "common/log_file.h"

namespace common {
namespace {

// Sizes include the terminator.
constexpr std::size_t kMaxHeader = 50;
constexpr std::size_t kMaxTag = 64;
constexpr std::size_t kMaxFrame = kMaxHeader + kMaxTag;  // of a line, without its message

// Each of these writes text into zeroed memory and returns the number of bytes.

std::size_t PutHeader(char* out, int level) noexcept {
  SYSTEMTIME now = {};
  GetLocalTime(&now);
  std::snprintf(out, kMaxHeader, "[%04d-%02d-%02d %02d:%02d:%02d.%03d][%d][%d]", now.wYear,
                now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds,
                static_cast<int>(GetCurrentThreadId()), level);
  return std::strlen(out);
}

std::size_t PutTag(char* out, const char* tag) noexcept {
  if (tag == nullptr || *tag == '\0') return 0;
  std::snprintf(out, kMaxTag, "[%s]", tag);
  return std::strlen(out);
}

VYR_PRINTF(3, 0)
std::size_t PutMessage(char* out, std::size_t size, const char* format,
                       va_list arguments) noexcept {
  std::vsnprintf(out, size, format, arguments);
  out[size - 1] = '\0';  // a formatting that failed need not have terminated its text
  return std::strlen(out);
}

// The whole line in zeroed memory of kMaxFrame + max_message bytes.
VYR_PRINTF(5, 0)
void WriteLine(char* line, std::size_t max_message, int level, const char* tag, const char* format,
               va_list arguments) noexcept {
  std::size_t size = PutHeader(line, level);
  size += PutTag(line + size, tag);
  size += PutMessage(line + size, max_message, format, arguments);
  line[size++] = '\n';
  GetLogFile().Write({line, size}, level);
}

// On the caller's stack: no allocation, no lock.
VYR_PRINTF(3, 0)
void WriteShortLine(int level, const char* tag, const char* format, va_list arguments) noexcept {
  char line[kMaxFrame + kMaxLogMessage] = {};
  WriteLine(line, kMaxLogMessage, level, tag, format, arguments);
}

// Bytes of the whole message, negative if it cannot be formatted.
VYR_PRINTF(1, 0)
int MessageSize(const char* format, va_list arguments) noexcept {
  va_list copy;
  va_copy(copy, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  return size;
}

}  // namespace

void LspLog(int level, const char* format, ...) noexcept {
  if (format == nullptr) return;
  const KeepLastError keep_last_error;
  va_list arguments;
  va_start(arguments, format);
  WriteShortLine(level, "lsp", format, arguments);
  va_end(arguments);
}

void CommonLog(int level, const char* tag, const char* format, ...) noexcept {
  if (format == nullptr) return;
  const KeepLastError keep_last_error;
  va_list arguments;
  va_start(arguments, format);
  const int size = MessageSize(format, arguments);
  std::unique_ptr<char[]> line;
  const int max_message = std::min(size, kMaxCommonLogMessage - 1) + 1;
  if (max_message > kMaxLogMessage)
    line.reset(new (std::nothrow) char[kMaxFrame + static_cast<std::size_t>(max_message)]());
  if (line != nullptr) {
    WriteLine(line.get(), static_cast<std::size_t>(max_message), level, tag, format, arguments);
  } else {
    WriteShortLine(level, tag, format, arguments);
  }
  va_end(arguments);
}

void LspTrace(const char* format, ...) noexcept {
  if (format == nullptr) return;
  const KeepLastError keep_last_error;
  constexpr std::string_view kPrefix = "[LspTrace]";
  char text[kPrefix.size() + kMaxLogMessage + 1] = {};
  std::size_t size = kPrefix.copy(text, kPrefix.size());
  va_list arguments;
  va_start(arguments, format);
  size += PutMessage(text + size, kMaxLogMessage, format, arguments);
  va_end(arguments);
  text[size] = '\n';
  OutputDebugStringA(text);
}

}  // namespace common
