#include "client/watch/line_source.h"

#include <winsock2.h>
//
#include <windows.h>

#include <fstream>
#include <iostream>
#include <utility>

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
    if (path != "-") opened.open(path, std::ios::binary);
    std::istream& input = path == "-" ? std::cin : opened;
    const bool is_open = static_cast<bool>(input);
    for (std::string line; std::getline(input, line);) Put(std::move(line));
    const common::Lock lock(mutex);
    has_failed = !is_open;
    has_ended = true;
    SetEvent(news);
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
  bool has_failed = false;
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

bool LineSource::failed() const {
  const common::Lock lock(state_->mutex);
  return state_->has_failed;
}

}  // namespace client
