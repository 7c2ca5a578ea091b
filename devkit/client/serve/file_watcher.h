// Notices that a file has been edited.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace client {

// The whole content, or nothing if it cannot be read. "-" is standard input.
std::optional<std::string> ReadAll(const std::string& path);

// Editors write in several steps, and for some the file is empty or missing for a moment. So new
// content counts once two looks in a row have found the same, and empty content never counts.
class FileWatcher {
 public:
  FileWatcher(std::string path, std::string content);

  // The new content, once, if there is any. To be called every fraction of a second; reads the
  // file only if its size or time has changed lately.
  std::optional<std::string> Poll();

 private:
  bool HasChangedLately();

  const std::string path_;
  std::string taken_;   // what the caller has
  std::string latest_;  // what the last look has found
  long long size_ = -1;
  std::time_t time_ = 0;
  int looks_left_ = 0;
};

}  // namespace client
