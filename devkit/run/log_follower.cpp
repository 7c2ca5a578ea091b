#include "log_follower.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "text.h"

namespace vyr_run {
namespace {

constexpr DWORD kPollMs = 100;
constexpr std::string_view kAnnouncement = "[LspTrace]InitLog: ";
constexpr std::string_view kNoLog = "no log file, ";

// The third bracket of "[time][thread][level]…"; -1 for a line that has none.
int LevelOf(std::string_view line) {
  size_t at = 0;
  for (int field = 0; field < 3; ++field) {
    if (at >= line.size() || line[at] != '[') return -1;
    const size_t end = line.find(']', at);
    if (end == std::string_view::npos) return -1;
    if (field == 2) return std::atoi(line.data() + at + 1);
    at = end + 1;
  }
  return -1;
}

}  // namespace

LogFollower::LogFollower(const winsock_host::HostReport* report, int level)
    : report_(report), level_(level), ended_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
  thread_ = CreateThread(nullptr, 0, Run, this, 0, nullptr);
  if (thread_ == nullptr) Complain(L"the log cannot be followed: " + ErrorText(GetLastError()));
}

LogFollower::~LogFollower() {
  SetEvent(ended_);
  if (thread_ != nullptr) {
    WaitForSingleObject(thread_, INFINITE);
    CloseHandle(thread_);
  }
  if (file_ != INVALID_HANDLE_VALUE) CloseHandle(file_);
  CloseHandle(ended_);
}

DWORD WINAPI LogFollower::Run(LPVOID self) {
  auto* const follower = static_cast<LogFollower*>(self);
  while (WaitForSingleObject(follower->ended_, kPollMs) == WAIT_TIMEOUT) follower->Look();
  follower->Look();  // what the end of the program has written
  return 0;
}

// A library that is loaded again begins another file.
void LogFollower::Look() {
  for (Read(); FindFile();) Read();
}

bool LogFollower::FindFile() {
  const long claimed = report_->debug_used;
  const size_t used = static_cast<size_t>(
      std::clamp<long>(claimed, 0, static_cast<long>(winsock_host::kDebugBytes)));
  while (seen_ < used) {
    const std::string_view text(report_->debug + seen_,
                                strnlen(report_->debug + seen_, used - seen_));
    if (text.empty() || text.back() != '\n') return false;  // it is being written
    seen_ += text.size() + 1;
    if (!text.starts_with(kAnnouncement)) continue;
    const std::string path(
        text.substr(kAnnouncement.size(), text.size() - kAnnouncement.size() - 1));
    if (path.starts_with(kNoLog)) {
      Complain(L"the library could not make its log (" + FromUtf8(path) + L")");
      continue;
    }
    if (file_ != INVALID_HANDLE_VALUE) CloseHandle(file_);
    file_ = CreateFileW(FromUtf8(path).c_str(), GENERIC_READ,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    rest_.clear();
    return true;
  }
  return false;
}

void LogFollower::Read() {
  if (file_ == INVALID_HANDLE_VALUE) return;
  char block[4096];
  for (DWORD got = 0; ReadFile(file_, block, sizeof block, &got, nullptr) && got != 0;) {
    rest_.append(block, got);
    for (size_t end = rest_.find('\n'); end != std::string::npos; end = rest_.find('\n')) {
      Show(rest_.substr(0, end));
      rest_.erase(0, end + 1);
    }
  }
}

void LogFollower::Show(std::string line) {
  const int level = LevelOf(line);
  if (level >= 0) last_is_shown_ = level >= level_;
  if (last_is_shown_) PrintError(FromLog(line));
}

}  // namespace vyr_run
