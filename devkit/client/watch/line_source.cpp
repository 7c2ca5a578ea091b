#include "client/watch/line_source.h"

#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <utility>

#include "client/files.h"
#include "common/lock.h"

namespace client {

namespace {

constexpr size_t kMostWaiting = 10000;  // lines; more of them stay where they come from
constexpr DWORD kFullPauseMs = 10;

}  // namespace

struct LineSource::State {
  explicit State(std::string from) : path(std::move(from)) {}

  void ReadAll() {
    std::ifstream opened;
    std::string reason;
    if (path != "-") reason = Open(&opened);
    std::istream& input = path == "-" ? std::cin : opened;
    for (std::string line; reason.empty() && std::getline(input, line);) {
      read_size += line.size() + 1;
      Put(std::move(line));
    }
    const common::Lock lock(mutex);
    problem = reason;
    has_ended = true;
    SetEvent(news);
  }

  // Does not read: a pipe would be emptied, or hold us.
  std::string Open(std::ifstream* file) {
    const std::filesystem::path name = PathOf(path);
    std::error_code error;
    if (std::filesystem::is_directory(name, error)) return "is a directory, not a file";
    if (!std::filesystem::exists(name, error)) return "does not exist";
    if (std::filesystem::is_regular_file(name, error)) {
      whole_size = std::filesystem::file_size(name, error);
    }
    file->open(name, std::ios::binary);
    return *file ? "" : "cannot be read";
  }

  void Put(std::string line) {
    for (;; Sleep(kFullPauseMs)) {
      const common::Lock lock(mutex);
      if (lines.size() >= kMostWaiting) continue;
      lines.push_back(std::move(line));
      SetEvent(news);
      return;
    }
  }

  static DWORD WINAPI Run(LPVOID held) {
    const std::unique_ptr<std::shared_ptr<State>> state(static_cast<std::shared_ptr<State>*>(held));
    (*state)->ReadAll();
    return 0;
  }

  const std::string path;
  const HANDLE news = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  common::Mutex mutex;  // of what follows
  std::vector<std::string> lines;
  bool has_ended = false;
  std::string problem;
  std::atomic<uint64_t> whole_size = 0;  // 0: not known
  std::atomic<uint64_t> read_size = 0;
};

LineSource::LineSource(const std::string& path) : state_(std::make_shared<State>(path)) {
  auto held = std::make_unique<std::shared_ptr<State>>(state_);
  const HANDLE thread = CreateThread(nullptr, 0, State::Run, held.get(), 0, nullptr);
  if (thread != nullptr) {
    held.release();
    CloseHandle(thread);
  } else {
    state_->ReadAll();
  }
}

bool LineSource::Take(unsigned wait_ms, std::vector<std::string>* lines) {
  WaitForSingleObject(state_->news, wait_ms);
  const common::Lock lock(state_->mutex);
  *lines = std::exchange(state_->lines, {});
  return !lines->empty() || !state_->has_ended;
}

std::string LineSource::problem() const {
  const common::Lock lock(state_->mutex);
  return state_->problem;
}

std::optional<unsigned> LineSource::Percent() const {
  const uint64_t whole = state_->whole_size;
  if (whole == 0) return std::nullopt;
  return static_cast<unsigned>(std::min<uint64_t>(100, state_->read_size * 100 / whole));
}

}  // namespace client
