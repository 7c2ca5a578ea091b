#include "port/shared/faults.h"

#include <algorithm>
#include <map>
#include <optional>
#include <vector>

#include "port/shared/backend.h"

namespace port {
namespace {

struct Fault {
  unsigned nth;  // 0: every call
  DWORD error;
};
struct Watched {
  unsigned calls = 0;
  std::vector<Fault> faults;  // nth as an absolute count of `calls`
};

std::atomic<bool> watching{false};
std::atomic<bool> success_keeps_last_error{false};
std::atomic<DWORD> last_error_of_success{0};
std::atomic<unsigned> reads_to_short_one{0};  // counts down; 0: off
std::atomic<DWORD> short_read_bytes{0};
std::mutex faults_lock;

std::map<std::string, Watched>& Table() {
  static auto& table = *new std::map<std::string, Watched>;
  return table;
}

std::optional<DWORD> CountAndJudge(const char* name) {
  std::lock_guard hold(faults_lock);
  Watched& entry = Table()[name];
  ++entry.calls;
  for (const Fault& fault : entry.faults)
    if (fault.nth == 0 || fault.nth == entry.calls) return fault.error;
  return std::nullopt;
}

}  // namespace

void FailCall(const std::string& name, unsigned nth, DWORD error) {
  std::lock_guard hold(faults_lock);
  Watched& entry = Table()[name];
  entry.faults.push_back({nth == 0 ? 0 : entry.calls + nth, error});
  watching = true;
}

void ClearFaults() {
  std::lock_guard hold(faults_lock);
  watching = false;
  reads_to_short_one = 0;
  Table().clear();
}

void ShortRead(unsigned nth, DWORD bytes) {
  short_read_bytes = bytes;
  reads_to_short_one = nth;
}

DWORD SizeToRead(DWORD size) {
  if (reads_to_short_one == 0 || --reads_to_short_one != 0) return size;
  return std::min<DWORD>(size, short_read_bytes);
}

void CountCalls() { watching = true; }

void SuccessKeepsLastError(bool keeps) { success_keeps_last_error = keeps; }

bool DoesSuccessKeepLastError() { return success_keeps_last_error.load(std::memory_order_relaxed); }

void SuccessLeavesLastError(DWORD error) { last_error_of_success = error; }

DWORD LastErrorOfSuccess() { return last_error_of_success.load(std::memory_order_relaxed); }

unsigned CallCount(const std::string& name) {
  std::lock_guard hold(faults_lock);
  auto at = Table().find(name);
  return at == Table().end() ? 0 : at->second.calls;
}

bool Fails(const char* name) {
  OnCall(name);
  if (!watching.load(std::memory_order_relaxed)) return false;
  auto error = CountAndJudge(name);
  if (error) SetLastError(*error);
  return error.has_value();
}

bool Fails(const char* name, LPINT out) {
  OnCall(name);
  if (!watching.load(std::memory_order_relaxed)) return false;
  auto error = CountAndJudge(name);
  if (error && out) *out = static_cast<INT>(*error);
  return error.has_value();
}

}  // namespace port
