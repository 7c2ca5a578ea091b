// Runs a function on several threads at once and waits for all of them.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <functional>
#include <vector>

namespace test {

namespace internal {
struct Start {
  const std::function<void(int)>* body;
  int index;
};
inline DWORD WINAPI Run(LPVOID parameter) {
  const Start& start = *static_cast<Start*>(parameter);
  (*start.body)(start.index);
  return 0;
}
}  // namespace internal

inline void RunThreads(int count, const std::function<void(int)>& body) {
  std::vector<internal::Start> starts;
  for (int i = 0; i < count; ++i) starts.push_back({&body, i});
  std::vector<HANDLE> threads;
  for (internal::Start& start : starts)
    threads.push_back(CreateThread(nullptr, 0, internal::Run, &start, 0, nullptr));
  for (HANDLE thread : threads) {
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
  }
}

inline void RunThread(const std::function<void()>& body) {
  RunThreads(1, [&body](int) { body(); });
}

}  // namespace test
