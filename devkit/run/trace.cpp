#include "trace.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "text.h"

namespace vyr_run {
namespace {

using winsock_host::CallCounter;
using winsock_host::HostReport;

// Text as a JSON string. Bytes above 127 pass unchanged: paths are UTF-8, and the reader has to
// replace whatever is not valid in debugger output.
std::string Quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      result += '\\';
      result += c;
    } else if (byte < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof(escape), "\\u%04x", byte);
      result += escape;
    } else {
      result += c;
    }
  }
  return result + '"';
}

void WriteRun(std::FILE* file, const RunFacts& facts) {
  std::fprintf(file, "{\"program\":%s,\"library\":%s,\"is_x64\":%s,\"exit_code\":%lu}\n",
               Quoted(ToUtf8(facts.program)).c_str(),
               facts.library.empty() ? "null" : Quoted(ToUtf8(facts.library)).c_str(),
               facts.is_x64 ? "true" : "false", facts.exit_code);
}

void WriteStarts(std::FILE* file, const HostReport& report) {
  const long seen = report.start_count;
  const long count = std::min<long>(seen, winsock_host::kMaxStarts);
  for (long i = 0; i < count; ++i) {
    const winsock_host::StartRecord& start = report.starts[i];
    std::fprintf(file, "{\"start\":%lu,\"protocol\":%ld,\"result\":%ld,\"replaced_entries\":%lu}\n",
                 static_cast<unsigned long>(start.catalog_id), static_cast<long>(start.protocol),
                 static_cast<long>(start.result),
                 static_cast<unsigned long>(start.replaced_entries));
  }
}

void WriteCleanups(std::FILE* file, const HostReport& report) {
  const long seen = report.cleanup_count;
  const long count = std::min<long>(seen, winsock_host::kMaxCleanups);
  for (long i = 0; i < count; ++i) {
    const winsock_host::CleanupRecord& cleanup = report.cleanups[i];
    std::fprintf(file, "{\"cleanup\":%lu,\"result\":%ld,\"elapsed_ms\":%lu,\"unloaded\":%s}\n",
                 static_cast<unsigned long>(cleanup.catalog_id), static_cast<long>(cleanup.result),
                 static_cast<unsigned long>(cleanup.elapsed_ms),
                 cleanup.unloaded != 0 ? "true" : "false");
  }
}

void WriteCalls(std::FILE* file, const char* through, const CallCounter* counters) {
  for (size_t i = 0; i < winsock_host::kCallCount; ++i) {
    const CallCounter& counter = counters[i];
    if (counter.count == 0) continue;
    std::fprintf(file,
                 "{\"call\":\"%s\",\"through\":\"%s\",\"count\":%ld,\"failed\":%ld,"
                 "\"pending\":%ld,\"bytes\":%.0f}\n",
                 winsock_host::kCallNames[i], through, static_cast<long>(counter.count),
                 static_cast<long>(counter.failed), static_cast<long>(counter.pending),
                 static_cast<double>(counter.bytes));
  }
}

void WriteDebugOutput(std::FILE* file, const HostReport& report) {
  const long claimed = report.debug_used;
  const size_t used =
      std::min<size_t>(static_cast<size_t>(std::max<long>(claimed, 0)), winsock_host::kDebugBytes);
  for (size_t at = 0; at < used;) {
    const std::string text(report.debug + at, strnlen(report.debug + at, used - at));
    if (!text.empty()) std::fprintf(file, "{\"debug_output\":%s}\n", Quoted(text).c_str());
    at += text.size() + 1;
  }
}

}  // namespace

bool WriteTrace(const std::wstring& path, const RunFacts& facts, const HostReport& report) {
  std::FILE* file = _wfopen(path.c_str(), L"wb");
  if (file == nullptr) return false;
  WriteRun(file, facts);
  WriteStarts(file, report);
  WriteCleanups(file, report);
  WriteCalls(file, "library", report.through_library);
  WriteCalls(file, "base", report.through_base);
  WriteDebugOutput(file, report);
  const bool written = std::ferror(file) == 0;
  return std::fclose(file) == 0 && written;
}

}  // namespace vyr_run
