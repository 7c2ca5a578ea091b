#include <array>

#include "port/sim/sockets.h"

namespace sim {
namespace {

using Test = bool (Socket::*)() const;

// One of the three sets: the caller's array, its sockets, and the condition for being ready.
struct Watch {
  fd_set* set;
  Test test;
  std::vector<SocketRef> sockets;

  bool Find(const Process& process) {
    if (!set) return true;
    if (set->fd_count > FD_SETSIZE) return false;
    for (u_int i = 0; i < set->fd_count; ++i) {
      sockets.push_back(TheWorld().sockets().Find(set->fd_array[i], process));
      if (!sockets.back()) return false;
    }
    return true;
  }
  bool AnyReady() const {
    for (const auto& socket : sockets)
      if (socket->closed || (socket.get()->*test)()) return true;
    return false;
  }
  bool AnyClosed() const {
    for (const auto& socket : sockets)
      if (socket->closed) return true;
    return false;
  }
  // Keeps the sockets that are ready, in their order.
  int Keep() const {
    if (!set) return 0;
    u_int kept = 0;
    for (size_t i = 0; i < sockets.size(); ++i)
      if ((sockets[i].get()->*test)()) set->fd_array[kept++] = set->fd_array[i];
    set->fd_count = kept;
    return static_cast<int>(kept);
  }
};

}  // namespace

int Select(const Process& process, fd_set* read, fd_set* write, fd_set* except,
           const struct timeval* timeout, int* ready) {
  std::array<Watch, 3> watches = {Watch{read, &Socket::CanRead, {}},
                                  Watch{write, &Socket::CanWrite, {}},
                                  Watch{except, &Socket::HasException, {}}};
  if (timeout && (timeout->tv_sec < 0 || timeout->tv_usec < 0)) return WSAEINVAL;
  size_t watched = 0;
  for (auto& watch : watches) {
    if (!watch.Find(process)) return WSAENOTSOCK;
    watched += watch.sockets.size();
  }
  if (watched == 0) return WSAEINVAL;

  const auto any_ready = [&] {
    return std::any_of(watches.begin(), watches.end(), [](const Watch& w) { return w.AnyReady(); });
  };
  const Micros most = timeout ? Micros{timeout->tv_sec} * 1'000'000 + timeout->tv_usec : kForever;
  if (most > 0 && !any_ready()) {
    Scheduler& scheduler = TheWorld().scheduler();
    Wait wait;
    wait.ready = any_ready;
    wait.says = [watched] { return Format("select on %zu handles", watched); };
    if (timeout) wait.deadline = scheduler.DeadlineIn(most);
    scheduler.Block(wait);
  }
  for (const auto& watch : watches)
    if (watch.AnyClosed()) return WSAENOTSOCK;
  *ready = 0;
  for (const auto& watch : watches) *ready += watch.Keep();
  return 0;
}

}  // namespace sim
