// How a serving program learns that it should end, and how it exits. For a program's main file
// only: signals concern the whole process.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace devkit {

namespace internal {

inline volatile std::sig_atomic_t end_asked = 0;

inline void OnSignal(int) { end_asked = 1; }

inline DWORD WINAPI WaitForEndOfInput(LPVOID) {
  while (std::getchar() != EOF) {
  }
  end_asked = 1;
  return 0;
}

}  // namespace internal

// Begins to watch for SIGINT, SIGTERM and, if wanted, the end of standard input; gives the flag
// that is not 0 from then on. A thread may sit in a read of standard input from here to the end:
// leave by RunToTheEnd.
inline const volatile std::sig_atomic_t* NoticeTheEnd(bool until_eof) {
  std::signal(SIGINT, internal::OnSignal);
  std::signal(SIGTERM, internal::OnSignal);
  if (until_eof) CreateThread(nullptr, 0, internal::WaitForEndOfInput, nullptr, 0, nullptr);
  return &internal::end_asked;
}

// The whole of a program's main: runs it, says on standard error what it threw (the exit code is
// 1 then), and leaves without the ordinary exit, which would wait for a lock of standard input
// that a thread of NoticeTheEnd holds.
[[noreturn]] inline void RunToTheEnd(const char* program, int (*run)(int, char**), int argc,
                                     char** argv) {
  int code = 1;
  try {
    code = run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", program, error.what());
  }
  std::fflush(stdout);
  std::_Exit(code);
}

}  // namespace devkit
