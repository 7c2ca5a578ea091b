#include "port/sim/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "port/shared/files.h"

// Uses the host system's own clock, not the simulated one.
#undef time

// There in a build that counts what runs. It writes what this process has counted, which _exit
// would lose.
extern "C" int __llvm_profile_write_file() __attribute__((weak));

namespace sim {
namespace {

constexpr int kPassed = 0;
constexpr int kFailed = 1;
constexpr int kSkipped = 77;
constexpr size_t kLinesKept = 60;

using WallClock = std::chrono::steady_clock;

[[noreturn]] void Leave(int code) {
  port::RemoveTemporaryRoot();
  if (__llvm_profile_write_file) __llvm_profile_write_file();
  _exit(code);
}

[[noreturn]] void RunBody(const Options& options, const std::function<void(World&)>& body,
                          const std::function<Verdict()>& verdict) {
  // Leaked on purpose: killed threads still have their stacks there, and _exit runs no destructor.
  World& world = *new World(options);
  body(world);
  std::fflush(nullptr);
  switch (verdict()) {
    case Verdict::kPassed:
      Leave(kPassed);
    case Verdict::kSkipped:
      Leave(kSkipped);
    case Verdict::kFailed:
      std::fprintf(stderr, "sim: the world at the end, %s", world.Report().c_str());
      Leave(kFailed);
  }
  Leave(kFailed);
}

// Reads the child's output until it closes the pipe or the time limit has passed.
bool ReadAll(int from, std::chrono::seconds limit, std::string* out) {
  const auto deadline = WallClock::now() + limit;
  while (true) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - WallClock::now()).count();
    if (left <= 0) return false;
    pollfd wait = {from, POLLIN, 0};
    if (::poll(&wait, 1, static_cast<int>(left)) <= 0) continue;
    char buffer[4096];
    const ssize_t n = ::read(from, buffer, sizeof buffer);
    if (n <= 0) return true;
    out->append(buffer, static_cast<size_t>(n));
  }
}

}  // namespace

std::string ChildResult::HowItEnded() const {
  if (timed_out) return "did not end in the real time it was given";
  if (signal != 0) return Format("was ended by signal %d (%s)", signal, ::strsignal(signal));
  if (exit_code == kWorldFailed) return "ended in a failure of its world";
  if (passed) return "passed";
  return Format("exited with %d", exit_code);
}

ChildResult RunInChild(const Options& options, const std::function<void(World&)>& body,
                       const std::function<Verdict()>& verdict, std::chrono::seconds wall_limit) {
  Options with_trace = options;
  with_trace.trace = NewSharedTraceRing();
  ChildResult result;
  int ends[2];
  std::fflush(nullptr);
  if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
  const pid_t child = ::fork();
  if (child < 0) std::abort();
  if (child == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    SetReplayCommand("parent");
    RunBody(with_trace, body, verdict);
  }
  ::close(ends[1]);
  result.timed_out = !ReadAll(ends[0], wall_limit, &result.output);
  ::close(ends[0]);
  if (result.timed_out) ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  result.passed = result.exit_code == kPassed;
  result.skipped = result.exit_code == kSkipped;
  result.trace_hash = with_trace.trace->hash;
  result.trace_lines = with_trace.trace->count;
  for (const auto& line : NewestLines(*with_trace.trace, kLinesKept))
    result.last_lines += "  " + line + "\n";
  ::munmap(with_trace.trace, sizeof(TraceRing));
  return result;
}

bool SeedFromEnvironment(uint64_t* seed) {
  const char* text = std::getenv("VYR_SEED");
  if (!text || !*text) return false;
  *seed = std::strtoull(text, nullptr, 0);
  return true;
}

std::string ReplayCommand(const std::string& test_name, uint64_t seed) {
  char program[512] = {};
  if (::readlink("/proc/self/exe", program, sizeof program - 1) < 0) return "";
  return Format("VYR_SEED=%llu %s --gtest_filter=%s", static_cast<unsigned long long>(seed),
                program, test_name.c_str());
}

}  // namespace sim
