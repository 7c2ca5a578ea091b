// A new folder in the host's file system, for files that are used through the standard library.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <filesystem>
#include <string>

namespace test {

class RealDir {
 public:
  RealDir() {
    static int made = 0;
    path_ = std::filesystem::temp_directory_path() /
            ("vyr_client_" + std::to_string(GetCurrentProcessId()) + "_" +
             std::to_string(GetTickCount()) + "_" + std::to_string(++made));
    std::filesystem::create_directories(path_);
  }
  ~RealDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  RealDir(const RealDir&) = delete;
  RealDir& operator=(const RealDir&) = delete;

  std::string File(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace test
