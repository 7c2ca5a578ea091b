// What is between a game and its server: a program, or code of this one, in separate processes.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// A process and its children, which are ended by the destructor.
class Forwarder {
 public:
  // Starts nothing.
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

// Whether a program of that name is installed.
bool HasProgram(const std::string& name);

// The processor time that the processes of given groups use from now on.
class ProcessorUse {
 public:
  explicit ProcessorUse(std::vector<pid_t> groups);
  // The time so far, of the processes that still run; one that has ended had nothing to do.
  double Seconds() const;

 private:
  std::map<pid_t, double> SecondsOfEach() const;

  const std::vector<pid_t> groups_;
  const std::map<pid_t, double> before_;
};

// True once there is a listener at that address; false after some seconds.
bool WaitForListener(const std::string& address, std::uint16_t port);

}  // namespace bench
