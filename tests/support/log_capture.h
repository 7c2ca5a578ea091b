// Directs the process's log into a file of the test while this object exists. One at a time.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "common/log.h"
#include "common/log_file.h"
#include "tests/support/temp_dir.h"

namespace test {

class LogCapture {
 public:
  // Lines of that level and above are written to the file.
  explicit LogCapture(common::u32 level = 0) : path_(dir_ / "test.log") {
    common::GetLogFile().Shut();  // opened by an earlier test
    EXPECT_TRUE(common::GetLogFile().Open(path_));
    common::GetLogFile().SetLevel(0);
    common::SetLogThreshold(level);
  }
  ~LogCapture() {
    common::GetLogFile().Shut();
    common::GetLogFile().SetLevel(common::LogFile::kInitialLevel);
    common::SetLogThreshold(0);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The end of the log: a test that polls need not read all of it.
  std::string Text() const {
    common::GetLogFile().Flush();
    return ReadFileText(path_);
  }
  std::string Whole() const {
    common::GetLogFile().Flush();
    return ReadFileText(path_, common::LogFile::kMaxWrittenTotal);
  }
  bool Contains(const std::string& part) const { return Text().find(part) != std::string::npos; }

 private:
  TempDir dir_;
  std::string path_;
};

}  // namespace test
