// A game in a process of its own, which carries out orders one after the other and returns the
// outcome of each. Orders and outcomes are plain values.
#pragma once
#include <signal.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <type_traits>

namespace bench {

// The process ends with this object, or with the process that created it.
template <class Order, class Outcome>
class GameProcess {
 public:
  // Both run in the game's process: `prepare` once, `carry` for each order.
  GameProcess(const std::function<void()>& prepare,
              const std::function<Outcome(const Order&)>& carry) {
    int orders[2];
    int outcomes[2];
    if (pipe(orders) != 0 || pipe(outcomes) != 0) return;
    pid_ = fork();
    if (pid_ == 0) Live(prepare, carry, orders[0], outcomes[1]);
    close(orders[0]);
    close(outcomes[1]);
    orders_ = orders[1];
    outcomes_ = outcomes[0];
  }
  ~GameProcess() {
    if (pid_ <= 0) return;
    close(orders_);
    close(outcomes_);
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  GameProcess(const GameProcess&) = delete;
  GameProcess& operator=(const GameProcess&) = delete;

  // All zero if the process has ended.
  Outcome Does(const Order& order) {
    Outcome outcome = {};
    if (!Put(orders_, order) || !Take(outcomes_, &outcome)) return {};
    return outcome;
  }

 private:
  static_assert(std::is_trivially_copyable_v<Order> && std::is_trivially_copyable_v<Outcome>);

  template <class Value>
  static bool Put(int pipe_end, const Value& value) {
    return write(pipe_end, &value, sizeof value) == static_cast<ssize_t>(sizeof value);
  }
  // More than a pipe takes at once comes in pieces.
  template <class Value>
  static bool Take(int pipe_end, Value* value) {
    char* const bytes = reinterpret_cast<char*>(value);
    std::size_t have = 0;
    while (have < sizeof *value) {
      const ssize_t more = read(pipe_end, bytes + have, sizeof *value - have);
      if (more <= 0) return false;
      have += static_cast<std::size_t>(more);
    }
    return true;
  }

  [[noreturn]] static void Live(const std::function<void()>& prepare,
                                const std::function<Outcome(const Order&)>& carry, int orders,
                                int outcomes) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prepare();
    Order order;
    while (Take(orders, &order) && Put(outcomes, carry(order))) continue;
    _exit(0);
  }

  pid_t pid_ = 0;
  int orders_ = -1;
  int outcomes_ = -1;
};

}  // namespace bench
