// The log with texts of other programs in it: paths, addresses and names of any bytes and length.
// The file holds exactly the lines that a naive writer makes of them, cut where the limits say, and
// the caller's last error stays.
#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <new>
#include <string>

#include "check.h"
#include "common/log.h"
#include "common/log_file.h"
#include "input.h"
#include "port/shared/files.h"

namespace {

using fuzz::Require;

constexpr char kPath[] = "C:\\fuzz\\log\\fuzz.log";
constexpr DWORD kError = 1234;

std::string Content() {
  std::ifstream file(port::HostPath(L"C:\\fuzz\\log\\fuzz.log"), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void RemoveFile() { std::remove(port::HostPath(L"C:\\fuzz\\log\\fuzz.log").c_str()); }

// A message or a tag, as a text of C with so much room.
std::string Cut(const std::string& text, std::size_t room) {
  const std::string whole = text.substr(0, text.find('\0'));
  return whole.substr(0, room - 1);
}

// Behind the time and the thread, which are digits: "[2026-01-02 03:04:05.678][17]".
std::string BehindTime(const std::string& line) {
  constexpr char kForm[] = "[dddd-dd-dd dd:dd:dd.ddd][";
  std::size_t at = 0;
  for (; kForm[at] != '\0'; ++at) {
    const bool is_right =
        kForm[at] == 'd' ? line[at] >= '0' && line[at] <= '9' : line[at] == kForm[at];
    Require(is_right, "a line begins with the time");
  }
  return line.substr(line.find(']', at) + 1);
}

void CheckOneLine(fuzz::Input* input) {
  RemoveFile();
  // Anew, since it counts what it writes in the whole life of the process.
  common::GetLogFile().~LogFile();
  new (&common::GetLogFile()) common::LogFile;
  Require(common::GetLogFile().Open(kPath), "the log opens");
  common::GetLogFile().SetLevel(0);
  const int level = input->Byte() % 7;
  const bool is_short = input->Byte() % 2 == 0;
  const std::string tag = input->Bytes(input->Byte());
  std::string text = input->Rest();
  if (text.size() % 16 == 15) {  // sometimes longer than any limit
    const std::string once = text;
    while (text.size() < 110000) text += once;
  }
  SetLastError(kError);
  if (is_short) {
    common::LspLog(level, "%s", text.c_str());
  } else {
    common::CommonLog(level, tag.c_str(), "%s", text.c_str());
  }
  Require(GetLastError() == kError, "the last error stays");
  common::GetLogFile().Shut();
  const std::string shown_tag = is_short               ? "[lsp]"
                                : Cut(tag, 65).empty() ? ""
                                                       : Cut("[" + Cut(tag, 1000) + "]", 64);
  const auto most =
      static_cast<std::size_t>(is_short ? common::kMaxLogMessage : common::kMaxCommonLogMessage);
  const std::string expected =
      "[" + std::to_string(level) + "]" + shown_tag + Cut(text, most) + "\n";
  Require(BehindTime(Content()) == expected, "the line");
  common::LspTrace("%s", text.c_str());
}

// Lines of any length and level in a file that may hold only so much.
void CheckFile(fuzz::Input* input) {
  RemoveFile();
  const std::size_t most = input->Word();
  std::string expected, collected;
  const auto flush = [&] {
    if (expected.size() >= most) return;
    expected += collected;
    collected.clear();
  };
  {
    common::LogFile file(most);
    Require(!file.Write("lost", 6), "nothing is written to no file");
    Require(file.Open(kPath), "the log opens");
    file.SetLevel(4);
    for (int i = 0; i < 64 && !input->empty(); ++i) {
      const int level = input->Byte() % 8;
      const std::string line = input->Byte() % 8 == 0 ? std::string(input->Word() % 5000, 'x')
                                                      : input->Bytes(input->Byte());
      Require(file.Write(line, level), "no line is lost");
      if (level == 7) file.Flush();
      if (level >= 4 && !line.empty()) {
        if (collected.size() + line.size() > common::LogFile::kFlushThreshold) flush();
        collected += line;
      }
      if (level == 7) flush();
    }
  }
  flush();
  Require(Content() == expected, "the file holds every line, up to its limit");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  fuzz::Input input(data, size);
  if (input.Byte() % 2 == 0) {
    CheckOneLine(&input);
  } else {
    CheckFile(&input);
  }
  return 0;
}
