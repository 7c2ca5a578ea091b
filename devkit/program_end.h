// When a program that serves until somebody ends it has been asked to end. For a program's main
// file: the signals are the whole process's.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <csignal>
#include <cstdio>

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
// that is not 0 from then on. A thread may sit in a read of standard input from here to the end,
// so the program must leave by _Exit: an ordinary exit would wait for that stream's lock.
inline const volatile std::sig_atomic_t* NoticeTheEnd(bool until_eof) {
  std::signal(SIGINT, internal::OnSignal);
  std::signal(SIGTERM, internal::OnSignal);
  if (until_eof) CreateThread(nullptr, 0, internal::WaitForEndOfInput, nullptr, 0, nullptr);
  return &internal::end_asked;
}

}  // namespace devkit
