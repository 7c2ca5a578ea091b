#include "port/sim/tcp.h"

#include <winsock2.h>

#include "port/sim/stack.h"

namespace sim {

namespace {
constexpr Micros kFirstConnectTimeout = 3'000'000;
constexpr int kConnectTries = 3;  // 3 + 6 + 12 s
constexpr Micros kLeastTimeout = 300'000;
constexpr Micros kMostTimeout = 60'000'000;
constexpr int kDataRetries = 5;
constexpr Micros kTimeWait = 60'000'000;
constexpr Micros kOrphanLife = 120'000'000;  // for a peer that never closes its side
constexpr int kDuplicatesThatMeanLoss = 3;
constexpr Micros kDelayedAck = 200'000;
constexpr size_t kSegmentsPerAck = 2;
constexpr size_t kMaxSegment = 1460;
constexpr size_t kMaxLoopbackSegment = 65495;

bool SavesSegments() { return TheWorld().options().tcp_saves_segments; }
}  // namespace

TcpConnection::TcpConnection(Stack& stack, const Address& local, const Address& remote,
                             const Settings& settings)
    : stack_(stack), local_(local), remote_(remote), settings_(settings) {}

// --- the owner's side -----------------------------------------------------------------------

void TcpConnection::Connect() {
  state_ = State::kSynSent;
  connection_ = stack_.network().NextConnection();
  timeout_ = kFirstConnectTimeout;
  Emit(0, {}, true, false, false);
  next_ = 1;
  ArmTimer(true);
}

void TcpConnection::AcceptFrom(const Packet& syn, const std::shared_ptr<TcpListener>& listener) {
  state_ = State::kSynReceived;
  connection_ = syn.tcp.connection;
  listener_ = listener;
  ++listener->half_open;
  expected_ = 1;
  peer_window_ = largest_window_ = syn.tcp.window;
  peer_stamp_ = syn.tcp.stamp;
  timeout_ = kFirstConnectTimeout;
  Emit(0, {}, true, false, false);
  next_ = 1;
  ArmTimer(true);
}

size_t TcpConnection::room() const {
  return out_.size() >= settings_.send ? 0 : settings_.send - out_.size();
}

size_t TcpConnection::Write(std::string_view data, bool urgent) {
  const size_t n = std::min(data.size(), room());
  out_.Append(data.substr(0, n));
  if (urgent && n > 0 && n == data.size()) urgent_end_ = end_of_data();
  SendWhatFits();
  return n;
}

size_t TcpConnection::Read(char* out, size_t most, bool peek) {
  if (before_urgent_ && *before_urgent_ > 0) most = std::min(most, *before_urgent_);
  const size_t n = in_.Peek(out, most);
  if (peek || n == 0) return n;
  in_.Drop(n);
  if (before_urgent_) *before_urgent_ -= std::min(n, *before_urgent_);
  if (state_ == State::kOpen && RoomIsWorthTelling()) SendAck();
  return n;
}

std::optional<char> TcpConnection::ReadUrgent(bool peek) {
  const std::optional<char> byte = urgent_byte_;
  if (!peek) urgent_byte_.reset();
  return byte;
}

void TcpConnection::FinishWriting() {
  if (finish_ || dead()) return;
  finish_ = true;
  SendWhatFits();
}

void TcpConnection::StopReading() {
  stopped_reading_ = true;
  in_.Clear();
}

void TcpConnection::Release(bool abort) {
  if (dead()) return;
  if (abort || !in_.empty() || state_ != State::kOpen) {
    if (state_ != State::kSynSent) Emit(next_, {}, false, false, true);
    Die(0);
    return;
  }
  released_ = true;
  FinishWriting();
  if (both_finished()) LingerThenVanish();
  WatchOrphan();
}

// A connection without an owner lives until it has delivered its data, and then for a limited time
// until its peer closes the other direction.
void TcpConnection::WatchOrphan() {
  Later(kOrphanLife, [](TcpConnection& it) {
    if (it.all_acknowledged())
      it.Die(0);
    else
      it.WatchOrphan();
  });
}

void TcpConnection::SetSettings(const Settings& settings) {
  settings_ = settings;
  if (state_ == State::kOpen) SendWhatFits();
}

bool TcpConnection::all_acknowledged() const {
  if (state_ != State::kOpen) return true;
  return out_.empty() && unacknowledged_ == next_ && finish_ == finish_sent_;
}

// --- out ------------------------------------------------------------------------------------

size_t TcpConnection::window() const {
  if (stopped_reading_) return settings_.receive;
  return in_.size() >= settings_.receive ? 0 : settings_.receive - in_.size();
}

size_t TcpConnection::segment_size() const {
  return stack_.IsLocal(remote_.ip) ? kMaxLoopbackSegment : kMaxSegment;
}

// Reading makes room, which is announced in steps of a segment, not of a byte.
bool TcpConnection::RoomIsWorthTelling() const {
  const size_t half = settings_.receive / 2;
  if (SavesSegments())
    return expected_ + window() >= told_edge_ + std::min(kSegmentsPerAck * segment_size(), half);
  const size_t least = std::min(segment_size(), half);  // below this, the window was nearly closed
  return told_window_ < least && window() >= least;
}

// Nagle's algorithm: while data is in flight, a piece waits until it fills a segment, or half of
// the largest window of the peer. It does not wait at the end of the stream.
bool TcpConnection::HoldsBack(size_t piece) const {
  if (!SavesSegments() || settings_.no_delay || finish_ || unacknowledged_ == next_) return false;
  if (urgent_end_ > next_) return false;
  return piece < std::min<size_t>(segment_size(), largest_window_ / 2);
}

void TcpConnection::Emit(uint64_t sequence, std::string data, bool syn, bool fin, bool rst) {
  Packet packet;
  packet.protocol = Protocol::kTcp;
  packet.from = local_;
  packet.to = remote_;
  packet.payload = std::move(data);
  packet.tcp.syn = syn;
  packet.tcp.fin = fin;
  packet.tcp.rst = rst;
  packet.tcp.ack = state_ != State::kSynSent;
  packet.tcp.sequence = sequence;
  packet.tcp.acknowledged = expected_;
  packet.tcp.window = static_cast<uint32_t>(window());
  packet.tcp.urgent = urgent_end_ > sequence ? urgent_end_ : 0;
  packet.tcp.connection = connection_;
  packet.tcp.stamp = ++stamp_;
  told_window_ = window();
  told_edge_ = expected_ + window();
  unacknowledged_segments_ = 0;
  ++spoken_;
  stack_.network().Send(stack_.host(), std::move(packet));
}

void TcpConnection::SendWhatFits() {
  if (state_ != State::kOpen) return;
  const uint64_t limit = unacknowledged_ + peer_window_;
  while (next_ < end_of_data() && next_ < limit) {
    const size_t n = static_cast<size_t>(
        std::min<uint64_t>({segment_size(), end_of_data() - next_, limit - next_}));
    if (HoldsBack(n)) break;
    if (timed_sequence_ == 0) {
      timed_sequence_ = next_ + n;
      timed_at_ = stack_.network().scheduler().now();
    }
    Emit(next_, out_.Copy(static_cast<size_t>(next_ - unacknowledged_), n), false, false, false);
    next_ += n;
  }
  if (finish_ && !finish_sent_ && next_ == end_of_data()) {
    Emit(next_, {}, false, true, false);
    finish_sent_ = true;
    ++next_;
  }
  ArmTimer(false);
}

void TcpConnection::RetransmitFirst() {
  timed_sequence_ = 0;  // an acknowledgement would not show which copy it is for
  if (state_ != State::kOpen) {
    Emit(0, {}, true, false, false);
    return;
  }
  const uint64_t data_under_way =
      std::min(next_ - (finish_sent_ ? 1 : 0), end_of_data()) - unacknowledged_;
  const size_t n = static_cast<size_t>(std::min<uint64_t>(segment_size(), data_under_way));
  if (n > 0) {
    Emit(unacknowledged_, out_.Copy(0, n), false, false, false);
  } else if (finish_sent_ && unacknowledged_ < next_) {
    Emit(unacknowledged_, {}, false, true, false);
  } else {
    // A probe of a closed window: the peer must answer an old sequence number with its state.
    Emit(unacknowledged_ - 1, {}, false, false, false);
  }
}

void TcpConnection::ArmTimer(bool again) {
  const bool needed =
      state_ != State::kOpen || unacknowledged_ < next_ || !out_.empty() || finish_ != finish_sent_;
  if (!needed || dead()) {
    timer_armed_ = false;
    ++timer_;
    return;
  }
  if (timer_armed_ && !again) return;
  timer_armed_ = true;
  if (timeout_ == 0) timeout_ = kLeastTimeout;
  Later(timeout_, [number = ++timer_](TcpConnection& it) {
    if (it.timer_ == number) it.OnTimer();
  });
}

void TcpConnection::OnTimer() {
  timer_armed_ = false;
  const bool handshake = state_ != State::kOpen;
  if (++retries_ >= (handshake ? kConnectTries : kDataRetries + 1)) {
    Die(WSAETIMEDOUT);
    return;
  }
  timeout_ = std::min(timeout_ * 2, kMostTimeout);
  recover_ = next_;
  RetransmitFirst();
  ArmTimer(true);
}

// --- in -------------------------------------------------------------------------------------

void TcpConnection::Receive(const Packet& packet) {
  auto keep = shared_from_this();
  if (packet.tcp.rst) {
    OnReset();
    return;
  }
  if (state_ == State::kSynSent) {
    if (!packet.tcp.syn || !packet.tcp.ack) return;
    state_ = State::kOpen;
    expected_ = 1;
    unacknowledged_ = 1;
    peer_window_ = largest_window_ = packet.tcp.window;
    peer_stamp_ = packet.tcp.stamp;
    retries_ = 0;
    timeout_ = kLeastTimeout;
    SendAck();
    ArmTimer(true);
    return;
  }
  if (packet.tcp.syn) {
    // Our SYN-ACK, or our acknowledgement of theirs, was lost.
    if (state_ == State::kSynReceived)
      Emit(0, {}, true, false, false);
    else
      SendAck();
    return;
  }
  if (packet.tcp.ack) OnAcknowledged(packet);
  if (state_ == State::kOpen) OnData(packet);
}

void TcpConnection::OnAcknowledged(const Packet& packet) {
  const uint64_t acknowledged = packet.tcp.acknowledged;
  if (acknowledged > next_) return;
  if (state_ == State::kSynReceived) {
    if (acknowledged < 1) return;
    state_ = State::kOpen;
    unacknowledged_ = 1;
    retries_ = 0;
    timeout_ = kLeastTimeout;
    ArmTimer(true);
    auto listener = listener_.lock();
    if (!listener) {
      Release(true);
      return;
    }
    --listener->half_open;
    listener->ready.push_back(shared_from_this());
  }
  const bool window_changed = packet.tcp.window != peer_window_;
  if (packet.tcp.stamp > peer_stamp_) {
    peer_stamp_ = packet.tcp.stamp;
    peer_window_ = packet.tcp.window;
    largest_window_ = std::max(largest_window_, peer_window_);
  }
  if (acknowledged > unacknowledged_) {
    out_.Drop(static_cast<size_t>(std::min(acknowledged, end_of_data()) - unacknowledged_));
    unacknowledged_ = acknowledged;
    duplicates_ = 0;
    retries_ = 0;
    if (timed_sequence_ != 0 && acknowledged >= timed_sequence_) {
      const Micros round_trip = stack_.network().scheduler().now() - timed_at_;
      timeout_ = std::clamp(round_trip * 2, kLeastTimeout, kMostTimeout);
      timed_sequence_ = 0;
    }
    if (acknowledged < recover_) RetransmitFirst();
    ArmTimer(true);
  } else if (unacknowledged_ < next_ && packet.payload.empty() && !packet.tcp.fin &&
             !window_changed) {
    if (++duplicates_ == kDuplicatesThatMeanLoss && recover_ <= unacknowledged_) {
      recover_ = next_;
      RetransmitFirst();
    }
  } else {
    retries_ = 0;  // the peer has answered a probe
  }
  SendWhatFits();
  if (released_ && both_finished()) LingerThenVanish();
}

void TcpConnection::OnData(const Packet& packet) {
  const uint64_t begin = packet.tcp.sequence;
  const uint64_t end = begin + packet.payload.size();
  if (packet.payload.empty() && !packet.tcp.fin && begin >= expected_) return;  // a bare ACK
  if (released_ && end > expected_) {
    // These bytes will never be read: reset the connection, as Windows does.
    Emit(next_, {}, false, false, true);
    Die(0);
    return;
  }
  // The acknowledgement of data that arrives in order, with no gap before or after it, can wait.
  const bool as_expected = begin == expected_ && early_.empty() && !packet.tcp.fin;
  urgent_behind_ = std::max(urgent_behind_, packet.tcp.urgent);
  if (packet.tcp.fin) finish_at_ = end;
  if (end > expected_ && begin < expected_ + window()) {
    std::string& place = early_[begin];
    if (packet.payload.size() > place.size()) place = packet.payload;
  }
  while (!early_.empty() && early_.begin()->first <= expected_) {
    const auto first = early_.begin();
    const uint64_t known = expected_ - first->first;
    const std::string data = std::move(first->second);
    early_.erase(first);
    if (known < data.size()) TakeInOrder(std::string_view(data).substr(static_cast<size_t>(known)));
  }
  if (expected_ == finish_at_ && !finished_in_) {
    finished_in_ = true;
    ++expected_;
  }
  Acknowledge(!as_expected || expected_ != end);
  if (released_ && both_finished()) LingerThenVanish();
}

void TcpConnection::Acknowledge(bool at_once) {
  if (at_once || !SavesSegments() || ++unacknowledged_segments_ >= kSegmentsPerAck) {
    SendAck();
    return;
  }
  Later(kDelayedAck, [before = spoken_](TcpConnection& it) {
    if (it.spoken_ == before) it.SendAck();
  });
}

void TcpConnection::TakeInOrder(std::string_view data) {
  data = data.substr(0, window());  // the sender has to retransmit what is beyond the window
  const uint64_t begin = expected_;
  expected_ += data.size();
  if (stopped_reading_) return;
  const bool urgent = urgent_behind_ > begin && urgent_behind_ <= expected_;
  const size_t before = urgent ? static_cast<size_t>(urgent_behind_ - begin - 1) : data.size();
  in_.Append(data.substr(0, before));
  if (!urgent) return;
  before_urgent_ = in_.size();
  if (!settings_.oob_inline) urgent_byte_ = data[before];
  in_.Append(data.substr(before + (settings_.oob_inline ? 0 : 1)));
}

void TcpConnection::OnReset() {
  if (auto listener = listener_.lock(); listener && state_ == State::kSynReceived)
    --listener->half_open;
  Die(state_ == State::kSynSent ? WSAECONNREFUSED : WSAECONNRESET);
}

// Clears the buffers, too: a reset discards the bytes before it, on both sides.
void TcpConnection::Die(int error) {
  if (dead()) return;
  state_ = State::kDead;
  error_ = error;
  out_.Clear();
  in_.Clear();
  early_.clear();
  stack_.Forget(*this);
}

// Stays for a while to acknowledge a FIN again if the acknowledgement was lost.
void TcpConnection::LingerThenVanish() {
  Later(kTimeWait, [](TcpConnection& it) { it.Die(0); });
}

void TcpConnection::Later(Micros delay, std::function<void(TcpConnection&)> what) {
  Scheduler& scheduler = stack_.network().scheduler();
  scheduler.At(scheduler.now() + delay, [self = weak_from_this(), what = std::move(what)] {
    auto it = self.lock();
    if (it && !it->dead()) what(*it);
  });
}

}  // namespace sim
