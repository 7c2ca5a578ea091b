// GoogleTest's one use of std::mutex, for a compiler flavour that has none. The class serves
// the tests of GoogleTest itself only, so all that is needed is that it compiles.
#pragma once
namespace testing {
namespace internal {
class Notification {
 public:
  void Notify() { notified_ = true; }
  void WaitForNotification() {
    while (!notified_) {
    }
  }

 private:
  volatile bool notified_ = false;
};
}  // namespace internal
}  // namespace testing
