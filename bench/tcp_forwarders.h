// The forwarders that stand beside the library's relay: other programs, in processes of their own.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// A program and all processes that it makes. Ended with this object.
class Forwarder {
 public:
  // Nothing is started by a default one.
  Forwarder() = default;
  explicit Forwarder(const std::vector<std::string>& command);
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

// Each forwards 127.0.0.1:`from` to `to`:`to_port`, as its maker's manual has it.
std::vector<std::string> SocatCommand(std::uint16_t from, const std::string& to,
                                      std::uint16_t to_port);
std::vector<std::string> HaproxyCommand(const std::string& folder, std::uint16_t from,
                                        const std::string& to, std::uint16_t to_port);

// True once somebody listens there; false after some seconds.
bool WaitForListener(const std::string& address, std::uint16_t port);

// What the processes of a group have used so far, those that still live.
double CpuSecondsOfGroup(pid_t group);

}  // namespace bench
