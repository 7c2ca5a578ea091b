#include "node/pipe.h"

#include <algorithm>

namespace node {
namespace {

// One connection must not keep the others waiting, however fast its peer is.
constexpr int kReadsInARow = 8;

}  // namespace

u64 Pipe::DueEnd(u64 now) const {
  u64 end = marks_.empty() ? received_ : sent_;
  for (const Mark& mark : marks_) {
    if (mark.due > now) return end;
    end = mark.end;
  }
  return end;
}

bool Pipe::WantsWrite(u64 now) const { return DueEnd(now) > sent_; }

u64 Pipe::NextDue(u64 now) const {
  for (const Mark& mark : marks_)
    if (mark.due > now) return mark.due;
  return ended_ && !finished_ && end_due_ > now ? end_due_ : kNever;
}

// Without a delay there are no marks, unless earlier bytes still wait: order matters more than
// time.
void Pipe::MarkDue(u64 due) {
  if (!marks_.empty()) due = std::max(due, marks_.back().due);
  if (!marks_.empty() && marks_.back().due == due) {
    marks_.back().end = received_;
  } else {
    marks_.push_back({received_, due});
  }
}

char* Pipe::Room(std::size_t* room) {
  if (!bytes_) bytes_.reset(new char[kCapacity]);
  const std::size_t used = size();
  if (used == 0) begin_ = 0;
  const std::size_t at = (begin_ + used) % kCapacity;
  *room = std::min(kCapacity - used, kCapacity - at);
  return bytes_.get() + at;
}

int Pipe::Read(SOCKET from, u64 now, u32 delay_ms) {
  for (int i = 0; i < kReadsInARow && WantsRead(); ++i) {
    std::size_t room = 0;
    char* const place = Room(&room);
    const int count = recv(from, place, static_cast<int>(room), 0);
    if (count == SOCKET_ERROR) {
      const int error = WSAGetLastError();
      return error == WSAEWOULDBLOCK ? 0 : error;
    }
    if (count == 0) {
      ended_ = true;
      end_due_ = std::max(now + delay_ms, marks_.empty() ? 0 : marks_.back().due);
      return 0;
    }
    received_ += static_cast<u64>(count);
    if (delay_ms > 0 || !marks_.empty()) MarkDue(now + delay_ms);
    if (static_cast<std::size_t>(count) < room) return 0;
  }
  return 0;
}

int Pipe::Write(SOCKET to, u64 now, u64 most) {
  const u64 end = std::min(DueEnd(now), most > kNever - sent_ ? kNever : sent_ + most);
  while (sent_ < end) {
    const u64 in_one_piece = std::min<u64>(end - sent_, kCapacity - begin_);
    const int count = send(to, bytes_.get() + begin_, static_cast<int>(in_one_piece), 0);
    if (count == SOCKET_ERROR) {
      const int error = WSAGetLastError();
      return error == WSAEWOULDBLOCK ? 0 : error;
    }
    sent_ += static_cast<u64>(count);
    begin_ = (begin_ + static_cast<std::size_t>(count)) % kCapacity;
    while (!marks_.empty() && marks_.front().end <= sent_) marks_.pop_front();
  }
  if (ended_ && !finished_ && sent_ == received_ && end_due_ <= now) {
    finished_ = true;
    if (shutdown(to, SD_SEND) != 0) return WSAGetLastError();
  }
  return 0;
}

}  // namespace node
