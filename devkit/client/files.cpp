#include "client/files.h"

#include <cerrno>
#include <fstream>
#include <iostream>
#include <iterator>

namespace client {
namespace {

namespace fs = std::filesystem;

fs::path BesideOf(const std::string& name) { return PathOf(name + ".new"); }

std::string WhyNotRead(const std::string& name) {
  std::error_code error;
  const fs::file_status status = fs::status(PathOf(name), error);
  if (status.type() == fs::file_type::not_found) return "does not exist";
  if (status.type() == fs::file_type::directory) return "is a directory, not a file";
  return "";
}

std::string WhyNotWritten(const std::string& name) {
  std::error_code error;
  const fs::path folder = PathOf(name).parent_path();
  if (!folder.empty() && !fs::exists(folder, error)) return "cannot be written: no such folder";
  return errno == EACCES ? "cannot be written: permission denied" : "cannot be written";
}

}  // namespace

fs::path PathOf(const std::string& name) {
  return fs::path(std::u8string(name.begin(), name.end()));
}

FileText ReadWhole(const std::string& name) {
  if (name == "-") return {std::string(std::istreambuf_iterator<char>(std::cin), {}), ""};
  if (std::string reason = WhyNotRead(name); !reason.empty()) return {std::nullopt, reason};
  errno = 0;
  std::ifstream file(PathOf(name), std::ios::binary);
  if (!file) {
    return {std::nullopt,
            errno == EACCES ? "may not be read: permission denied" : "cannot be read"};
  }
  std::string text(std::istreambuf_iterator<char>(file), {});
  if (file.bad()) return {std::nullopt, "cannot be read"};
  return {std::move(text), ""};
}

std::string WriteWhole(const std::string& name, const std::string& content) {
  if (std::string reason = WhyNotWritable(name); !reason.empty()) return reason;
  std::error_code error;
  std::ofstream file(BesideOf(name), std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) {
    fs::remove(BesideOf(name), error);
    return "cannot be written";
  }
  fs::rename(BesideOf(name), PathOf(name), error);
  return error ? "cannot be replaced" : "";
}

std::string WhyNotWritable(const std::string& name) {
  std::error_code error;
  if (fs::is_directory(PathOf(name), error)) return "is a directory, not a file";
  errno = 0;
  const bool is_open = std::ofstream(BesideOf(name), std::ios::binary | std::ios::trunc).is_open();
  if (!is_open) return WhyNotWritten(name);
  fs::remove(BesideOf(name), error);
  return "";
}

}  // namespace client
