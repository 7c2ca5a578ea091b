#include "relay/socket_sets.h"

#include <algorithm>

namespace moru_vyr::lsp {
namespace {

// The layout that select takes, on every platform, with room for what the loop promises.
static_assert(FD_SETSIZE == 128);
static_assert(sizeof(SOCKET) != 4 || sizeof(fd_set) == 129 * sizeof(u32));

bool Has(const fd_set& set, SOCKET socket) noexcept {
  const SOCKET* const end = set.fd_array + set.fd_count;
  return std::find(set.fd_array, end, socket) != end;
}

void Append(fd_set* set, SOCKET socket) noexcept {
  if (set->fd_count < FD_SETSIZE) set->fd_array[set->fd_count++] = socket;
}

// Select takes the sockets that there are, and half a kilobyte of places for more need no copy.
void Copy(const fd_set& from, fd_set* to) noexcept {
  to->fd_count = from.fd_count;
  std::copy_n(from.fd_array, from.fd_count, to->fd_array);
}

// The order of service is the order of the set, so the rest moves up.
void Erase(fd_set* set, SOCKET socket) noexcept {
  SOCKET* const end = set->fd_array + set->fd_count;
  SOCKET* const found = std::find(set->fd_array, end, socket);
  if (found == end) return;
  std::copy(found + 1, end, found);
  --set->fd_count;
}

}  // namespace

u32 SocketSets::Add(SOCKET socket, IRelaySocketDelegate* delegate) noexcept {
  try {
    if (!sockets_.try_emplace(socket, Entry{delegate, pass_}).second) return 1;
  } catch (...) {
    return 1;  // without memory the socket stays unpolled, as one that finds no room does
  }
  CountPlaces();
  if (Has(read_, socket)) return 1;
  Append(&read_, socket);
  return 0;
}

u32 SocketSets::EnableWrite(SOCKET socket, bool enable) noexcept {
  if (!sockets_.contains(socket)) return 0;
  if (!enable) {
    Erase(&write_, socket);
    return 0;
  }
  if (Has(write_, socket)) return 1;
  Append(&write_, socket);
  return 0;
}

void SocketSets::StopReading(SOCKET socket) noexcept { Erase(&read_, socket); }

void SocketSets::ResumeReading(SOCKET socket) noexcept {
  if (sockets_.contains(socket) && !Has(read_, socket)) Append(&read_, socket);
}

// A socket whose reading was stopped keeps its place.
void SocketSets::CountPlaces() noexcept {
  const std::size_t used = std::min<std::size_t>(sockets_.size(), FD_SETSIZE);
  free_places_.store(static_cast<u32>(FD_SETSIZE - used), std::memory_order_relaxed);
}

IRelaySocketDelegate* SocketSets::Remove(SOCKET socket) noexcept {
  Erase(&read_, socket);
  Erase(&write_, socket);
  const auto found = sockets_.find(socket);
  if (found == sockets_.end()) return nullptr;
  IRelaySocketDelegate* const delegate = found->second.delegate;
  sockets_.erase(found);
  CountPlaces();
  return delegate;
}

IRelaySocketDelegate* SocketSets::Find(SOCKET socket) const noexcept {
  const auto found = sockets_.find(socket);
  if (found == sockets_.end() || found->second.added_in == pass_) return nullptr;
  return found->second.delegate;
}

int SocketSets::Poll(const timeval& timeout, int* error) noexcept {
  ++pass_;
  fd_set readable, writable, failed;  // NOLINT: filled below
  Copy(read_, &readable);
  Copy(write_, &writable);
  Copy(read_, &failed);
  fd_set* const writable_or_null = write_.fd_count > 0 ? &writable : nullptr;
  timeval limit = timeout;  // some headers want to write here
  const int ready = select(0, &readable, writable_or_null, &failed, &limit);
  *error = ready == SOCKET_ERROR ? WSAGetLastError() : 0;
  if (ready <= 0) return ready;

  for (u_int i = 0; i < readable.fd_count; ++i) {
    if (auto* const delegate = Find(readable.fd_array[i]))
      delegate->OnReadable(readable.fd_array[i]);
  }
  for (u_int i = 0; writable_or_null != nullptr && i < writable.fd_count; ++i) {
    const SOCKET socket = writable.fd_array[i];
    IRelaySocketDelegate* const delegate = Find(socket);
    if (delegate == nullptr) continue;  // a new socket with this value keeps its request
    EnableWrite(socket, false);
    delegate->OnWritable(socket);
  }
  for (u_int i = 0; i < failed.fd_count; ++i) {
    if (auto* const delegate = Find(failed.fd_array[i])) delegate->OnException(failed.fd_array[i]);
  }
  return ready;
}

}  // namespace moru_vyr::lsp
