#include "client/watch/terminal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifdef _WIN32
#include <winsock2.h>
//
#include <windows.h>
#else
#include <sys/ioctl.h>
#include <unistd.h>
#endif

namespace client {
namespace {

constexpr unsigned kPipeColumns = 160;

// The terminal's second screen, without a cursor. A line that is still too wide, since some
// characters take two columns, is cut and does not run into the next one.
constexpr char kEnterScreen[] = "\x1b[?1049h\x1b[?25l\x1b[?7l";
constexpr char kLeaveScreen[] = "\x1b[?7h\x1b[?25h\x1b[?1049l";

#ifdef _WIN32
bool MakeScreen() {
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  if (GetConsoleMode(output, &mode) == 0) return false;
  SetConsoleOutputCP(CP_UTF8);
  return SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

ScreenSize AskSize() {
  CONSOLE_SCREEN_BUFFER_INFO info = {};
  if (GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info) == 0) return {80, 24};
  return {static_cast<unsigned>(info.srWindow.Right - info.srWindow.Left + 1),
          static_cast<unsigned>(info.srWindow.Bottom - info.srWindow.Top + 1)};
}
#else
bool MakeScreen() {
  const char* const kind = std::getenv("TERM");
  return isatty(STDOUT_FILENO) != 0 && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

ScreenSize AskSize() {
  winsize size = {};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return {80, 24};
  return {size.ws_col, size.ws_row};
}
#endif

bool Put(const std::string& text) {
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  return std::fflush(stdout) == 0 && written;
}

}  // namespace

Terminal::Terminal() : is_screen_(MakeScreen()) {
  if (is_screen_) Put(kEnterScreen);
}

Terminal::~Terminal() {
  if (is_screen_) Put(kLeaveScreen);
}

ScreenSize Terminal::Size() const {
  if (is_screen_) return AskSize();
  const char* const columns = std::getenv("COLUMNS");
  const long wanted = columns != nullptr ? std::strtol(columns, nullptr, 10) : 0;
  return {wanted > 0 && wanted < 10000 ? static_cast<unsigned>(wanted) : kPipeColumns, 0};
}

bool Terminal::Draw(const std::vector<std::string>& lines, ScreenSize size) {
  std::string text;
  if (!is_screen_) {
    for (const std::string& line : lines) text += line + "\n";
    return Put(text + "\n");
  }
  // Each line is cleared before it is written: clearing after a full line would clear its last
  // column. No newline after the last line: the screen would scroll.
  text = "\x1b[H";
  for (size_t i = 0; i < lines.size(); ++i) text += (i == 0 ? "\x1b[K" : "\r\n\x1b[K") + lines[i];
  if (size.rows == 0 || lines.size() < size.rows) text += "\r\n\x1b[J";
  return Put(text);
}

}  // namespace client
