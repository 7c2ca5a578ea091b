#include "client/console.h"

#ifdef _WIN32
#include <winsock2.h>
//
#include <windows.h>
//
#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <cstdio>
#include <iostream>

#include "common/text.h"
#else
#include <iterator>
#endif

namespace client {

#ifdef _WIN32
namespace {

struct Stream {
  int descriptor;
  DWORD handle_name;
};
constexpr Stream kStreams[] = {{1, STD_OUTPUT_HANDLE}, {2, STD_ERROR_HANDLE}};

bool IsConsole(const Stream& stream) {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(stream.handle_name), &mode) != 0;
}

void FlushAll() {
  std::cout.flush();
  std::fflush(stdout);
  std::fflush(stderr);
}

// How many bytes at the end of the text begin a character that is not complete yet.
size_t Incomplete(const std::string& text) {
  for (size_t back = 1; back <= 3 && back <= text.size(); ++back) {
    const auto byte = static_cast<unsigned char>(text[text.size() - back]);
    if ((byte & 0xc0) == 0x80) continue;
    const size_t size = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
    return size > back ? back : 0;
  }
  return 0;
}

}  // namespace

// The console's own translation depends on its code page, and it is handed text in pieces that may
// end within a character. So both streams go through one pipe, in the order in which they are
// written, to a thread that writes whole characters.
struct Console::Window {
  ~Window() {
    FlushAll();
    for (size_t i = 0; i < std::size(kStreams); ++i) {
      if (former[i] < 0) continue;
      _dup2(former[i], kStreams[i].descriptor);  // closes the pipe's end
      _close(former[i]);
    }
    if (thread != nullptr) {
      WaitForSingleObject(thread, INFINITE);
      CloseHandle(thread);
    }
    if (read_end >= 0) _close(read_end);
    // The library of C has taken the window's handles with the descriptors.
  }

  bool Open() {
    screen = CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE,
                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    int ends[2] = {};
    if (screen == INVALID_HANDLE_VALUE || _pipe(ends, 65536, _O_TEXT | _O_NOINHERIT) != 0) {
      return false;
    }
    read_end = ends[0];
    thread = CreateThread(nullptr, 0, Run, this, 0, nullptr);
    for (size_t i = 0; thread != nullptr && i < std::size(kStreams); ++i) {
      if (IsConsole(kStreams[i])) Redirect(i, ends[1]);
    }
    _close(ends[1]);
    return thread != nullptr;
  }

  // Who asks for the standard handle still finds the window, its size and its modes.
  void Redirect(size_t stream, int write_end) {
    former[stream] = _dup(kStreams[stream].descriptor);
    _dup2(write_end, kStreams[stream].descriptor);
    SetStdHandle(kStreams[stream].handle_name, screen);
  }

  static DWORD WINAPI Run(LPVOID self) {
    auto* const window = static_cast<Window*>(self);
    const auto pipe = reinterpret_cast<HANDLE>(_get_osfhandle(window->read_end));
    std::string text;
    char block[4096];
    for (DWORD got = 0; ReadFile(pipe, block, sizeof block, &got, nullptr) && got != 0;) {
      text.append(block, got);
      const size_t rest = Incomplete(text);
      window->Write(text.substr(0, text.size() - rest));
      text.erase(0, text.size() - rest);
    }
    window->Write(text);
    return 0;
  }

  void Write(const std::string& text) const {
    const int length = static_cast<int>(text.size());
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), size);
    DWORD written = 0;
    if (size > 0) {
      WriteConsoleW(screen, wide.data(), static_cast<DWORD>(size), &written, nullptr);
    }
  }

  HANDLE screen = INVALID_HANDLE_VALUE;
  HANDLE thread = nullptr;
  int read_end = -1;
  int former[std::size(kStreams)] = {-1, -1};
};

Console::Console() {
  if (!IsConsole(kStreams[0]) && !IsConsole(kStreams[1])) return;
  window_ = std::make_unique<Window>();
  if (!window_->Open()) window_.reset();
}

std::vector<std::string> Arguments(int, char**) {
  int count = 0;
  wchar_t** const words = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; words != nullptr && i < count; ++i) {
    common::u16to8(words[i], &arguments.emplace_back());
  }
  LocalFree(words);
  return arguments;
}
#else
struct Console::Window {};

Console::Console() = default;

std::vector<std::string> Arguments(int argc, char** argv) { return {argv + 1, argv + argc}; }
#endif

Console::~Console() = default;

}  // namespace client
