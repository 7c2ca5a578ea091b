// A second sink: the last 5 MiB of log text, kept in a view of a temporary file (prefix "TFR"),
// to be written to a file of one's choice on demand. Nothing opens it yet. It stands in the write
// path so that every line passes it, and costs one test of a pointer there.
#pragma once
#include <cstddef>
#include <string_view>

namespace common {

class LogRing {
 public:
  static constexpr std::size_t kCapacity = 5242880;
  static constexpr const wchar_t* kTempFilePrefix = L"TFR";

  // Does nothing while there is no view.
  void Append(std::string_view line) noexcept;

 private:
  char* view_ = nullptr;
  std::size_t next_ = 0;
};

// The process's ring.
LogRing& GetLogRing() noexcept;

}  // namespace common
