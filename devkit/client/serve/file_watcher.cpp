#include "client/serve/file_watcher.h"

#include <utility>

#include "client/files.h"

namespace client {
namespace {

// A file's time may count in steps of two seconds: looks within that time after a change.
constexpr int kLooksAfterChange = 15;

// A second: longer than an editor takes to write.
constexpr int kLooksUntilTrouble = 5;

bool IsBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

}  // namespace

FileWatcher::FileWatcher(std::string path, std::string content)
    : name_(std::move(path)), path_(PathOf(name_)), taken_(content), latest_(std::move(content)) {}

bool FileWatcher::Exists() {
  std::error_code error;
  time_ = std::filesystem::last_write_time(path_, error);
  if (error) return false;
  size_ = std::filesystem::file_size(path_, error);
  return !error || std::filesystem::exists(path_, error);
}

bool FileWatcher::HasChangedLately() {
  if (size_ != seen_size_ || time_ != seen_time_) {
    seen_size_ = size_;
    seen_time_ = time_;
    looks_left_ = kLooksAfterChange;
  }
  return looks_left_ > 0 && looks_left_-- > 0;
}

void FileWatcher::Note(std::string problem) {
  looks_with_it_ = problem == problem_ ? looks_with_it_ + 1 : 0;
  problem_ = std::move(problem);
}

std::string FileWatcher::trouble() const {
  return looks_with_it_ >= kLooksUntilTrouble ? problem_ : "";
}

std::optional<std::string> FileWatcher::Poll() {
  if (!Exists()) {
    Note("has vanished");
    looks_left_ = kLooksAfterChange;  // the same file may come back
    return std::nullopt;
  }
  if (!HasChangedLately()) {
    Note(problem_);
    return std::nullopt;
  }
  FileText content = ReadWhole(name_);
  if (!content.text || IsBlank(*content.text)) {
    Note(content.text ? "is empty" : content.problem);
    return std::nullopt;
  }
  Note("");
  const bool is_settled = *content.text == latest_;
  latest_ = std::move(*content.text);
  if (!is_settled || latest_ == taken_) return std::nullopt;
  taken_ = latest_;
  return taken_;
}

}  // namespace client
