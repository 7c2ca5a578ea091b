// One end of a TCP connection, and a listener.
//
// A small TCP over packets that may be lost, duplicated or reordered: cumulative acknowledgement,
// retransmission with exponential backoff, fast retransmission, flow control, probes of a closed
// window, half close, reset.
//
// With Options::tcp_saves_segments there is Nagle's algorithm and delayed acknowledgement: a small
// segment waits until earlier data is acknowledged, unless TCP_NODELAY is set, and an
// acknowledgement waits for outgoing data, for a second segment, or for 200 ms. Together they delay
// messages. Without the option everything is sent at once.
//
// There is no congestion control, because no program can rely on it or violate it. Timeouts are
// those of Windows: a connect gives up after 3 + 6 + 12 s, data after five retransmissions. There
// is one urgent byte at a time: if another one follows before it has arrived, it becomes an
// ordinary byte.
#pragma once
#include <deque>
#include <map>
#include <memory>
#include <optional>

#include "port/sim/byte_queue.h"
#include "port/sim/network.h"

namespace sim {

class Stack;
class TcpListener;

class TcpConnection : public std::enable_shared_from_this<TcpConnection> {
 public:
  // The options that setsockopt sets.
  struct Settings {
    size_t send = 65536;
    size_t receive = 65536;
    bool no_delay = false;
    bool oob_inline = false;
  };
  TcpConnection(Stack& stack, const Address& local, const Address& remote,
                const Settings& settings);

  // --- the owner's side ---
  void Connect();  // sends the SYN
  void AcceptFrom(const Packet& syn, const std::shared_ptr<TcpListener>& listener);
  // Queues as many bytes as the send buffer has room for, and returns their number. With `urgent`,
  // the last byte is the urgent one, if all of them fit.
  size_t Write(std::string_view data, bool urgent = false);
  // Stops at the position of an urgent byte. The byte itself is read only if urgent data is inline.
  size_t Read(char* out, size_t most, bool peek);
  // The urgent byte, if there is one.
  std::optional<char> ReadUrgent(bool peek);
  void FinishWriting();  // queues a FIN
  void StopReading();    // drops everything that arrives from now on
  // The owner closes the socket. With unread bytes or `abort`, this resets the connection;
  // otherwise queued bytes are still delivered.
  void Release(bool abort);
  void SetSettings(const Settings& settings);

  const Address& local() const { return local_; }
  const Address& remote() const { return remote_; }
  bool connecting() const { return state_ == State::kSynSent; }
  bool open() const { return state_ == State::kOpen; }
  bool dead() const { return state_ == State::kDead; }
  int error() const { return error_; }  // why the connection failed; 0: it was closed in order
  size_t unread() const { return in_.size(); }
  bool urgent_waits() const { return urgent_byte_.has_value(); }
  bool at_end() const { return finished_in_ && in_.empty(); }
  size_t room() const;  // in the send buffer
  bool writing_finished() const { return finish_; }
  bool all_acknowledged() const;  // nothing queued, FIN included

  // --- the stack's side ---
  void Receive(const Packet& packet);
  uint64_t connection() const { return connection_; }
  // The connection exists only to answer late segments, and its ports may be used again.
  bool in_time_wait() const { return released_ && both_finished(); }

 private:
  enum class State { kNew, kSynSent, kSynReceived, kOpen, kDead };

  bool both_finished() const { return finished_in_ && finish_ && all_acknowledged(); }
  uint64_t end_of_data() const { return unacknowledged_ + out_.size(); }
  size_t window() const;
  size_t segment_size() const;
  bool HoldsBack(size_t piece) const;
  bool RoomIsWorthTelling() const;
  void Emit(uint64_t sequence, std::string data, bool syn, bool fin, bool rst);
  void SendAck() { Emit(next_, {}, false, false, false); }
  void Acknowledge(bool at_once);
  void SendWhatFits();
  void RetransmitFirst();
  void OnAcknowledged(const Packet& packet);
  void OnData(const Packet& packet);
  void TakeInOrder(std::string_view data);
  void OnReset();
  void ArmTimer(bool again);
  void OnTimer();
  void Die(int error);
  void LingerThenVanish();
  void WatchOrphan();
  void Later(Micros delay, std::function<void(TcpConnection&)> what);

  Stack& stack_;
  const Address local_, remote_;
  Settings settings_;
  State state_ = State::kNew;
  int error_ = 0;
  bool released_ = false;
  uint64_t connection_ = 0;
  uint64_t stamp_ = 0;
  std::weak_ptr<TcpListener> listener_;

  // Outgoing: [unacknowledged_, next_) is in flight; out_ contains that and what follows.
  ByteQueue out_;
  uint64_t unacknowledged_ = 0;
  uint64_t next_ = 0;
  uint64_t recover_ = 0;  // where sending had got to when a loss was detected; resent up to there
  uint64_t urgent_end_ = 0;
  bool finish_ = false;
  bool finish_sent_ = false;
  uint32_t peer_window_ = 0;
  uint32_t largest_window_ = 0;  // the largest window that the peer has announced
  uint64_t peer_stamp_ = 0;
  int duplicates_ = 0;

  // Incoming: everything before expected_ is in in_ or has been read; early_ has what follows a
  // gap.
  ByteQueue in_;
  uint64_t expected_ = 0;
  std::map<uint64_t, std::string> early_;
  uint64_t urgent_behind_ = 0;           // the sequence number after the peer's last urgent byte
  std::optional<char> urgent_byte_;      // not inline and not yet read
  std::optional<size_t> before_urgent_;  // how many bytes of in_ precede its position
  uint64_t finish_at_ = UINT64_MAX;
  bool finished_in_ = false;
  bool stopped_reading_ = false;
  size_t told_window_ = 0;
  uint64_t told_edge_ = 0;              // the end of the window that was last announced to the peer
  size_t unacknowledged_segments_ = 0;  // received since our last segment
  uint64_t spoken_ = 0;  // segments sent; shows that a delayed acknowledgement is no longer needed

  uint64_t timer_ = 0;  // the number of the newest timer; older timers do nothing
  bool timer_armed_ = false;
  Micros timeout_ = 0;
  int retries_ = 0;
  uint64_t timed_sequence_ = 0;  // the segment whose round trip is being measured; 0: none
  Micros timed_at_ = 0;
};

class TcpListener {
 public:
  TcpListener(const Address& local, size_t backlog, const TcpConnection::Settings& settings)
      : local_(local), backlog_(backlog), settings_(settings) {}

  const Address& local() const { return local_; }
  const TcpConnection::Settings& settings() const { return settings_; }
  void SetSettings(const TcpConnection::Settings& settings) { settings_ = settings; }
  bool full() const { return half_open + ready.size() >= backlog_; }

  size_t half_open = 0;
  std::deque<std::shared_ptr<TcpConnection>> ready;  // not yet accepted

 private:
  const Address local_;
  const size_t backlog_;
  TcpConnection::Settings settings_;
};

}  // namespace sim
