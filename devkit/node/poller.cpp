#include "node/poller.h"

#include <windows.h>

namespace node {
namespace {

// With more sockets than one select takes, the groups are looked at in turn this often.
constexpr u32 kTurnMs = 2;

// Without FD_SET's search for duplicates: Want's caller names each socket once.
void Append(SOCKET socket, fd_set* set) { set->fd_array[set->fd_count++] = socket; }

bool Contains(SOCKET socket, const fd_set& set) {
  for (unsigned i = 0; i < set.fd_count; ++i)
    if (set.fd_array[i] == socket) return true;
  return false;
}

void Empty(fd_set* set) { set->fd_count = 0; }

}  // namespace

void Poller::Clear() {
  groups_.clear();
  seen_.clear();
}

void Poller::Want(SOCKET socket, Readiness wanted) {
  if (!wanted.any()) return;
  if (groups_.empty() || groups_.back().sockets == FD_SETSIZE) {
    Group& group = groups_.emplace_back();
    Empty(&group.read);
    Empty(&group.write);
    Empty(&group.except);
  }
  Group& group = groups_.back();
  if (wanted.read) Append(socket, &group.read);
  if (wanted.write) Append(socket, &group.write);
  if (wanted.except) Append(socket, &group.except);
  ++group.sockets;
}

int Poller::Select(Group* group, u32 most_ms) {
  struct timeval most = {};
  most.tv_sec = static_cast<decltype(most.tv_sec)>(most_ms / 1000);
  most.tv_usec = static_cast<decltype(most.tv_usec)>(most_ms % 1000 * 1000);
  const int ready = select(0, &group->read, &group->write, &group->except, &most);
  if (ready > 0) return ready;
  Empty(&group->read);
  Empty(&group->write);
  Empty(&group->except);
  return ready;
}

bool Poller::Wait(u32 most_ms) {
  seen_ = groups_;
  if (groups_.empty()) {
    Sleep(most_ms);
    return true;
  }
  if (groups_.size() == 1) return Select(&seen_[0], most_ms) != SOCKET_ERROR;
  bool ready = false;
  for (Group& group : seen_) {
    const int count = Select(&group, 0);
    if (count == SOCKET_ERROR) return false;
    ready = ready || count > 0;
  }
  if (ready) return true;
  seen_[0] = groups_[0];
  return Select(&seen_[0], most_ms < kTurnMs ? most_ms : kTurnMs) != SOCKET_ERROR;
}

Readiness Poller::Of(SOCKET socket) const {
  Readiness readiness;
  for (const Group& group : seen_) {
    readiness.read = readiness.read || Contains(socket, group.read);
    readiness.write = readiness.write || Contains(socket, group.write);
    readiness.except = readiness.except || Contains(socket, group.except);
  }
  return readiness;
}

}  // namespace node
