// A thread for one function.
#pragma once

#include <functional>

namespace http {

class Thread {
 public:
  Thread() = default;
  ~Thread();  // waits for the function's end
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // False if the system has no thread to give. The function must not throw.
  bool Start(std::function<void()> run);

 private:
  std::function<void()> run_;
  void* handle_ = nullptr;
};

}  // namespace http
