// Stacks that take turns on one thread of the host, and what belongs to each of them.
//
// A switch costs some tens of instructions, where the kernel takes microseconds to wake one thread
// of the host and put another to sleep. The sanitizers are told of each switch. What the host keeps
// for each of its threads is one for all fibers, except for what KeepForEach names.
#pragma once
#include <cstddef>
#include <functional>

namespace sim {

class Fiber {
 public:
  // The calling thread of the host, on its own stack.
  Fiber() = default;
  // Runs `body`, which must not return, when it is switched to for the first time.
  explicit Fiber(std::function<void()> body);
  // Frees the stack, which nobody may refer to any more.
  ~Fiber();
  Fiber(const Fiber&) = delete;
  Fiber& operator=(const Fiber&) = delete;

  // False if the host had no memory for a stack.
  bool exists() const { return stack_ != nullptr; }

  // Stops the caller, which must be running on `from`, until somebody switches to it.
  static void Switch(Fiber& from, Fiber& to);

  // From now on each fiber has a copy of this memory, which is in its place while the fiber runs. A
  // new fiber begins with what is there now. The memory must hold plain bytes and live for ever.
  static void KeepForEach(void* memory, size_t size);

 private:
  friend struct FiberEntry;
  void Save();
  void Restore() const;
  void Arrive();

  char* stack_ = nullptr;  // its lowest byte; null: that of a thread of the host
  void* at_ = nullptr;     // where it has stopped
  std::function<void()> body_;
  // Not allocated: a switch may come while allocations fail on demand.
  char kept_[256];
  size_t kept_size_ = 0;
  void* shadow_ = nullptr;      // the rest is for the address sanitizer: its own stack,
  const void* base_ = nullptr;  // and the bounds of this one
  size_t size_ = 0;
};

}  // namespace sim
