// select: sets of handles in array order, over poll.
#include "port/posix/native.h"
//
#include "port/posix/sockets.h"

#include <cerrno>
#include <chrono>

#include "port/posix/threads.h"

namespace port {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kNoTwin = static_cast<size_t>(-1);

// One handle in one of the three sets.
struct Wanted {
  Socket* socket;
  short events;
  size_t twin = kNoTwin;  // the index of the same handle in the set for reading, if it is there
  bool ready = false;
};

struct Set {
  fd_set* handles;
  short events;
  std::vector<Wanted>& wanted;
};

// Buffers that are reused by all selections of a thread, so that only the first ones allocate.
struct Scratch {
  std::vector<Wanted> wanted[3];
  SelectedSockets sockets;
  std::vector<pollfd> polled;
};

Scratch& ThreadScratch() {
  thread_local Scratch scratch;
  return scratch;
}

// Callers often pass the same handles in two sets, in the same order. One lookup and one poll then
// serve both.
int Resolve(Set* set, const Set& reads, const SocketFinder& finder, SelectedSockets* sockets) {
  if (!set->handles) return 0;
  if (set->handles->fd_count > FD_SETSIZE) return WSAEINVAL;
  for (u_int i = 0; i < set->handles->fd_count; ++i) {
    const SOCKET handle = set->handles->fd_array[i];
    if (set != &reads && i < reads.wanted.size() && reads.handles->fd_array[i] == handle) {
      set->wanted.push_back({reads.wanted[i].socket, set->events, i});
      continue;
    }
    SocketRef socket = finder.Find(handle);
    if (!socket) return WSAENOTSOCK;
    set->wanted.push_back({socket.get(), set->events});
    sockets->push_back(std::move(socket));
  }
  return 0;
}

// The events for which this socket may be polled. On the host, an unconnected or refused stream
// always polls as writable and hung up. Windows reports a refused one in the exception set only,
// and an unconnected one in none.
short Pollable(Socket& socket, short events) {
  if (!socket.stream()) return events;
  if (socket.listening) return static_cast<short>(events & POLLIN);
  switch (SettleConnect(socket)) {
    case Socket::Connect::kDone:
      // The host reports an urgent byte even if it is read inline; Windows does not.
      return events == POLLPRI && socket.oob_inline ? short{0} : events;
    case Socket::Connect::kPending:
      return POLLOUT;  // any outcome matters to every set
    default:
      return 0;
  }
}

bool ReadyByState(Socket& socket, short events) {
  if (!socket.stream()) return events == POLLIN && socket.pending_error != 0;
  return events == POLLPRI && SettleConnect(socket) == Socket::Connect::kFailed;
}

bool ReadyByPoll(Socket& socket, short events, short seen) {
  if (seen == 0) return false;
  if (socket.stream() && !socket.listening && SettleConnect(socket) != Socket::Connect::kDone)
    return false;
  if (events == POLLPRI) return (seen & POLLPRI) != 0 && !socket.oob_inline;
  if (events == POLLIN) return (seen & (POLLIN | POLLHUP | POLLERR)) != 0;
  return (seen & (POLLOUT | POLLHUP | POLLERR)) != 0 && (socket.stream() || (seen & POLLOUT));
}

class Selection {
 public:
  Selection(fd_set* read, fd_set* write, fd_set* except)
      : sets_{{read, POLLIN, scratch_.wanted[0]},
              {write, POLLOUT, scratch_.wanted[1]},
              {except, POLLPRI, scratch_.wanted[2]}} {}
  // Releases the sockets; otherwise one could outlive its handle until the next select.
  ~Selection() {
    for (Set& set : sets_) set.wanted.clear();
    scratch_.sockets.clear();
  }
  Selection(const Selection&) = delete;
  Selection& operator=(const Selection&) = delete;

  const SelectedSockets& sockets() const { return scratch_.sockets; }

  int ResolveAll() {
    const SocketFinder finder;
    for (Set& set : sets_)
      if (int error = Resolve(&set, sets_[0], finder, &scratch_.sockets)) return error;
    bool any = false;
    for (const Set& set : sets_) any = any || !set.wanted.empty();
    return any ? 0 : WSAEINVAL;
  }

  template <class Action>
  void ForEach(Action action) {
    for (Set& set : sets_)
      for (Wanted& one : set.wanted) action(one);
  }

  // Polls all sockets once, for at most that long. False if a socket was closed meanwhile.
  bool Look(Thread& thread, const timespec* limit) {
    std::vector<pollfd>& polled = scratch_.polled;
    polled.clear();
    polled.push_back({thread.WakeFd(), POLLIN, 0});
    bool settled = false;
    ForEach([&](Wanted& one) {
      const short events = Pollable(*one.socket, one.events);
      if (one.twin == kNoTwin) {
        polled.push_back({events ? one.socket->fd : -1, events, 0});
      } else if (events != 0) {
        pollfd& shared = polled[one.twin + 1];
        shared.fd = one.socket->fd;
        shared.events = static_cast<short>(shared.events | events);
      }
      one.ready = ReadyByState(*one.socket, one.events);
      settled = settled || one.ready;
    });
    const timespec none = {0, 0};
    if (::ppoll(polled.data(), polled.size(), settled ? &none : limit, nullptr) > 0 &&
        polled[0].revents)
      thread.DrainWakes();
    size_t at = 1;
    bool open = true;
    ForEach([&](Wanted& one) {
      Socket& socket = *one.socket;
      const short seen = polled[one.twin == kNoTwin ? at++ : one.twin + 1].revents;
      one.ready =
          one.ready || ReadyByPoll(socket, one.events, seen) || ReadyByState(socket, one.events);
      open = open && !socket.closed;
    });
    return open;
  }

  int Keep() {
    int total = 0;
    for (Set& set : sets_) {
      if (!set.handles) continue;
      u_int kept = 0;
      for (u_int i = 0; i < set.handles->fd_count; ++i)
        if (set.wanted[i].ready) set.handles->fd_array[kept++] = set.handles->fd_array[i];
      set.handles->fd_count = kept;
      total += static_cast<int>(kept);
    }
    return total;
  }

  bool AnyReady() {
    bool any = false;
    ForEach([&](const Wanted& one) { any = any || one.ready; });
    return any;
  }

 private:
  Scratch& scratch_ = ThreadScratch();
  Set sets_[3];
};

timespec Left(Clock::time_point deadline) {
  using std::chrono::nanoseconds;
  const auto left = std::max<int64_t>(
      0, std::chrono::duration_cast<nanoseconds>(deadline - Clock::now()).count());
  return {left / 1'000'000'000, left % 1'000'000'000};
}

}  // namespace

int SelectSockets(fd_set* read, fd_set* write, fd_set* except, const timeval* timeout, int* ready) {
  Selection selection(read, write, except);
  if (int error = selection.ResolveAll()) return error;
  if (timeout && (timeout->tv_sec < 0 || timeout->tv_usec < 0)) return WSAEINVAL;
  Clock::time_point deadline = Clock::now();
  if (timeout)
    deadline += std::chrono::seconds(timeout->tv_sec) + std::chrono::microseconds(timeout->tv_usec);
  Thread& thread = Self();
  bool open = true;
  bool over = false;
  {
    Selecting selecting(selection.sockets(), thread);
    while (!thread.told_to_end && open && !selection.AnyReady() && !over) {
      const timespec left = timeout ? Left(deadline) : timespec{};
      open = selection.Look(thread, timeout ? &left : nullptr);
      over = timeout && Clock::now() >= deadline;
    }
  }
  EndIfTold();
  if (!open) return WSAENOTSOCK;
  *ready = selection.Keep();
  return 0;
}

}  // namespace port
