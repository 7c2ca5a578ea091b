// Notices that a file has been edited.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace client {

// Editors write in several steps, and for some the file is empty or missing for a moment. So new
// content counts once two looks in a row have found the same, and empty content never counts.
class FileWatcher {
 public:
  FileWatcher(std::string path, std::string content);

  // The new content, once, if there is any. To be called every fraction of a second; reads the
  // file only if its size or time has changed lately.
  std::optional<std::string> Poll();

  // Why there is nothing to serve in the file, in words, if that has lasted for some looks: it has
  // vanished, is empty, may not be read. Empty if it is in order.
  std::string trouble() const;

 private:
  bool Exists();
  bool HasChangedLately();
  void Note(std::string problem);

  const std::string name_;
  const std::filesystem::path path_;
  std::string taken_;   // what the caller has
  std::string latest_;  // what the last look has found
  std::uintmax_t size_ = 0;
  std::filesystem::file_time_type time_ = std::filesystem::file_time_type::min();
  std::uintmax_t seen_size_ = 0;  // at the look that found a change
  std::filesystem::file_time_type seen_time_ = std::filesystem::file_time_type::min();
  int looks_left_ = 0;
  std::string problem_;  // of the last look
  int looks_with_it_ = 0;
};

}  // namespace client
