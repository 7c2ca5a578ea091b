// One direction of a carried connection: the bytes that have been read from one socket and not yet
// been sent to the other, each due some time after it arrived. Bounded: when it is full, nothing is
// read, and TCP's flow control stops the sender.
#pragma once
#include <cstddef>
#include <deque>
#include <memory>

#include "node/socket.h"

namespace node {

class Pipe {
 public:
  static constexpr std::size_t kCapacity = 256 * 1024;
  static constexpr std::size_t kLeastRead = 16 * 1024;
  static constexpr u64 kNever = ~u64{0};

  // Whether there is enough room for a read, and more bytes may arrive.
  bool WantsRead() const { return !ended_ && kCapacity - size() >= kLeastRead; }
  // Whether something is due that the destination has not yet accepted.
  bool WantsWrite(u64 now) const;
  // When the next byte, or the end, becomes due; kNever if nothing waits for its time.
  u64 NextDue(u64 now) const;

  // Reads what is available, which becomes due `delay_ms` after `now`. 0, or the socket's error.
  int Read(SOCKET from, u64 now, u32 delay_ms);
  // Sends what is due, at most `most` bytes, and shuts down `to` after the last byte of an ended
  // stream. 0, or the socket's error; a full socket is not an error.
  int Write(SOCKET to, u64 now, u64 most);

  bool ended() const { return ended_; }        // the source has sent its last byte
  bool finished() const { return finished_; }  // and the destination has been shut down
  u64 received() const { return received_; }
  u64 sent() const { return sent_; }

 private:
  // Everything before `end` (counted from the stream's first byte) is due at `due`.
  struct Mark {
    u64 end, due;
  };

  std::size_t size() const { return static_cast<std::size_t>(received_ - sent_); }
  u64 DueEnd(u64 now) const;
  void MarkDue(u64 due);
  char* Room(std::size_t* size);

  std::unique_ptr<char[]> bytes_;  // a ring, allocated with the first byte
  std::size_t begin_ = 0;          // the position of the byte number sent_ in it
  std::deque<Mark> marks_;         // empty: everything is due
  u64 end_due_ = 0;
  u64 received_ = 0;
  u64 sent_ = 0;
  bool ended_ = false;
  bool finished_ = false;
};

}  // namespace node
