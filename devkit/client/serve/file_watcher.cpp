#include "client/serve/file_watcher.h"

#include <sys/stat.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <utility>

namespace client {
namespace {

// A file's time may count in steps of two seconds: looks within that time after a change.
constexpr int kLooksAfterChange = 15;

}  // namespace

std::optional<std::string> ReadAll(const std::string& path) {
  if (path == "-") return std::string(std::istreambuf_iterator<char>(std::cin), {});
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string text(std::istreambuf_iterator<char>(file), {});
  if (file.bad()) return std::nullopt;
  return text;
}

FileWatcher::FileWatcher(std::string path, std::string content)
    : path_(std::move(path)), taken_(content), latest_(std::move(content)) {}

bool FileWatcher::HasChangedLately() {
  struct stat now = {};
  if (stat(path_.c_str(), &now) != 0) return false;
  if (now.st_size != size_ || now.st_mtime != time_) {
    size_ = now.st_size;
    time_ = now.st_mtime;
    looks_left_ = kLooksAfterChange;
  }
  return looks_left_ > 0 && looks_left_-- > 0;
}

std::optional<std::string> FileWatcher::Poll() {
  if (!HasChangedLately()) return std::nullopt;
  auto content = ReadAll(path_);
  if (!content || content->empty()) return std::nullopt;
  const bool is_settled = *content == latest_;
  latest_ = std::move(*content);
  if (!is_settled || latest_ == taken_) return std::nullopt;
  taken_ = latest_;
  return taken_;
}

}  // namespace client
