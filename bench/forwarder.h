// What stands between a game and its server: a program, or code of this one, in processes of its
// own.
#pragma once
#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// A process and all that it makes. Ended with this object.
class Forwarder {
 public:
  // Nothing is started by a default one.
  Forwarder() = default;
  explicit Forwarder(const std::vector<std::string>& command);
  explicit Forwarder(const std::function<void()>& work);
  ~Forwarder();
  Forwarder(Forwarder&& other) noexcept : pid_(std::exchange(other.pid_, 0)) {}
  Forwarder& operator=(Forwarder&& other) noexcept {
    std::swap(pid_, other.pid_);
    return *this;
  }

  pid_t group() const { return pid_; }

 private:
  pid_t pid_ = 0;
};

// Whether a program can be found by that name.
bool HasProgram(const std::string& name);

// What the processes of a group have used so far, those that still live.
double CpuSecondsOfGroup(pid_t group);

}  // namespace bench
