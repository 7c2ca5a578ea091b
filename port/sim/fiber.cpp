#include "port/sim/fiber.h"

#include <cxxabi.h>
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include "port/shared/single_step.h"

#if defined(__SANITIZE_ADDRESS__)
#define VYR_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VYR_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef VYR_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif

#if !defined(__x86_64__)
#include <ucontext.h>
#endif

namespace sim {
namespace {

// As much as a thread has on Windows, and again as much for the frames of sanitized code.
constexpr size_t kStackBytes = 2 << 20;
constexpr size_t kGuardBytes = 64 << 10;  // below it: to grow beyond the stack is a fault

struct Kept {
  char* memory;
  size_t size;
  char first[64];  // what a new fiber begins with
};
Kept all_kept[8];
size_t kept_blocks = 0;

void Keep(void* memory, size_t size, const void* first) {
  if (kept_blocks == std::size(all_kept) || size > sizeof Kept::first) std::abort();
  Kept& kept = all_kept[kept_blocks++];
  kept.memory = static_cast<char*>(memory);
  kept.size = size;
  std::memcpy(kept.first, first, size);
}

// Exceptions in flight belong to the stack that handles them.
void KeepExceptions() {
  static constexpr void* kNone[2] = {};  // the layout of the ABI: a list, and a number
  static const bool done = (Keep(abi::__cxa_get_globals(), sizeof kNone, kNone), true);
  (void)done;
}

std::vector<char*>& SpareStacks() {
  static auto& spare = *new std::vector<char*>{};
  return spare;
}

// Null if there is no memory.
char* TakeStack() {
  auto& spare = SpareStacks();
  if (!spare.empty()) {
    char* const stack = spare.back();
    spare.pop_back();
    return stack;
  }
  void* const memory = ::mmap(nullptr, kGuardBytes + kStackBytes, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  ::mprotect(memory, kGuardBytes, PROT_NONE);
  char* const stack = static_cast<char*>(memory) + kGuardBytes;
#ifdef VYR_ADDRESS_SANITIZER
  __lsan_register_root_region(stack, kStackBytes);
#endif
  return stack;
}

void GiveStackBack(char* stack) {
#ifdef VYR_ADDRESS_SANITIZER
  __asan_unpoison_memory_region(stack, kStackBytes);  // the marks of frames that were left
#endif
  SpareStacks().push_back(stack);
}

Fiber* departed = nullptr;  // whose stack was left last
Fiber* arrives = nullptr;   // which fiber begins or goes on

}  // namespace

struct FiberEntry {
  // Where each fiber begins. An exception that leaves its body ends the program here.
  [[noreturn]] static void Run() noexcept {
    Fiber& self = *arrives;
    self.Arrive();
    self.body_();
    std::abort();
  }
};

}  // namespace sim

#if defined(__x86_64__)

extern "C" {
// Saves what a function must preserve and the stack pointer, and takes those of another stack.
void vyr_switch_stack(void** from, void* to);
[[noreturn]] void vyr_begin_fiber() noexcept { sim::FiberEntry::Run(); }
}
asm(R"(
.text
.globl vyr_switch_stack
.hidden vyr_switch_stack
.type vyr_switch_stack, @function
vyr_switch_stack:
  pushq %rbp
  pushq %rbx
  pushq %r12
  pushq %r13
  pushq %r14
  pushq %r15
  movq %rsp, (%rdi)
  movq %rsi, %rsp
  popq %r15
  popq %r14
  popq %r13
  popq %r12
  popq %rbx
  popq %rbp
  retq
.size vyr_switch_stack, .-vyr_switch_stack
)");

namespace sim {
namespace {

// A frame as if vyr_begin_fiber had been about to run: six registers, and the place to return to.
void* FirstFrame(char* stack) {
  auto* const top = reinterpret_cast<void**>(stack + kStackBytes);
  void** frame = top - 1;  // aligned as after a call, which nobody returns from
  frame[0] = nullptr;
  *--frame = reinterpret_cast<void*>(&vyr_begin_fiber);
  for (int i = 0; i < 6; ++i) *--frame = nullptr;
  return frame;
}

void SwitchStack(void** from, void* to) { vyr_switch_stack(from, to); }

}  // namespace
}  // namespace sim

#else

namespace sim {
namespace {

void* FirstFrame(char* stack) {
  auto* const context = new ucontext_t;
  ::getcontext(context);
  context->uc_stack.ss_sp = stack;
  context->uc_stack.ss_size = kStackBytes;
  context->uc_link = nullptr;
  ::makecontext(context, reinterpret_cast<void (*)()>(&FiberEntry::Run), 0);
  return context;
}

void SwitchStack(void** from, void* to) {
  if (*from == nullptr) *from = new ucontext_t;
  ::swapcontext(static_cast<ucontext_t*>(*from), static_cast<ucontext_t*>(to));
}

}  // namespace
}  // namespace sim

#endif

namespace sim {

Fiber::Fiber(std::function<void()> body) : stack_(TakeStack()), body_(std::move(body)) {
  if (stack_ == nullptr) return;
  at_ = FirstFrame(stack_);
  base_ = stack_;
  size_ = kStackBytes;
}

Fiber::~Fiber() {
  if (stack_ != nullptr) GiveStackBack(stack_);
}

void Fiber::KeepForEach(void* memory, size_t size) { Keep(memory, size, memory); }

void Fiber::Save() {
  kept_size_ = 0;
  for (size_t i = 0; i < kept_blocks; ++i) {
    const Kept& kept = all_kept[i];
    if (kept_size_ + kept.size > sizeof kept_) std::abort();
    std::memcpy(kept_ + kept_size_, kept.memory, kept.size);
    kept_size_ += kept.size;
  }
}

void Fiber::Restore() const {
  size_t at = 0;
  for (size_t i = 0; i < kept_blocks; ++i) {
    const Kept& kept = all_kept[i];
    const bool is_new = at + kept.size > kept_size_;
    std::memcpy(kept.memory, is_new ? kept.first : kept_ + at, kept.size);
    at += kept.size;
  }
}

void Fiber::Switch(Fiber& from, Fiber& to) {
  KeepExceptions();
  const auto* const look = port::PauseSteps();
  from.Save();
  departed = &from;
  arrives = &to;
#ifdef VYR_ADDRESS_SANITIZER
  __sanitizer_start_switch_fiber(&from.shadow_, to.base_, to.size_);
#endif
  SwitchStack(&from.at_, to.at_);
  from.Arrive();
  if (look != nullptr) port::BeginSteps(look);
}

// On the stack of this fiber, after a switch to it.
void Fiber::Arrive() {
#ifdef VYR_ADDRESS_SANITIZER
  const void* base = nullptr;
  size_t size = 0;
  __sanitizer_finish_switch_fiber(shadow_, &base, &size);
  departed->base_ = base;
  departed->size_ = size;
#endif
  Restore();
}

}  // namespace sim
