// The whole world's streams: their players, their server, and what must have arrived.
#include <algorithm>
#include <cstdlib>

#include "port/sim/threads.h"
#include "tests/scenario/whole_world.h"

namespace whole_test {

void WholeWorld::PlanStream(const Stretch& stretch) {
  Stream& one = streams_.emplace_back();
  one.id = streams_.size() - 1;
  DrawStream({.servers = {std::begin(kServers), std::end(kServers)},
              .latest_ms = stretch.length_ms,
              .pauses_percent = 40,
              .long_percent = 30,
              .games = kAnyLeaving,
              .hosts = kAnyLeaving},
             &one);
  one.style = static_cast<Style>(Below(4));
}

void WholeWorld::PlayStream(Stream* stream) {
  Sleep(stream->starts_ms);
  stream->makes_socket = true;
  const SOCKET s = Tcp();
  if (s != INVALID_SOCKET) stream->caller = std::make_unique<Caller>(s, stream->style);
  stream->makes_socket = false;
  if (s == INVALID_SOCKET) return;
  if (stream->caller->Connect(stream->server, kPort) == 0) {
    stream->game_end = LiveOn(stream->caller.get(), stream->game, stream->up, stream->down.size(),
                              &stream->up_sent, &stream->down_got);
  }
  stream->caller->Close();
}

std::string WholeWorld::LiveOn(Caller* caller, const Manner& manner, const std::string& says,
                               size_t expects, size_t* sent, std::string* got) {
  const auto stop = std::make_shared<bool>(false);
  const auto send_all = [caller, manner, &says, sent, stop] {
    while (*sent < says.size() && !*stop) {
      const size_t size = std::min(manner.piece, says.size() - *sent);
      const int n = caller->Send(says.data() + *sent, static_cast<int>(size));
      if (n <= 0) break;
      *sent += static_cast<size_t>(n);
      if (manner.pause_ms > 0) Sleep(manner.pause_ms);
    }
  };
  // Receives until that many bytes are there. The end of the stream, or nothing if they are.
  const auto receive = [caller, manner, got](size_t target, const bool& over) -> std::string {
    std::string bytes(16'384, '\0');
    while (got->size() < target && !over) {
      if (manner.read_pause_ms > 0) Sleep(manner.read_pause_ms);
      const size_t most = std::min(bytes.size(), target - got->size());
      const int n = caller->Receive(bytes.data(), static_cast<int>(most));
      if (n == 0) return "closed";
      if (n < 0) return "error " + std::to_string(-n);
      got->append(bytes, 0, static_cast<size_t>(n));
    }
    return "";
  };
  if (manner.leaving == Manner::kAfterSending) {
    send_all();
    return "left";
  }
  const size_t target = got->size() + expects;
  const auto running = std::make_shared<std::vector<DWORD>>();
  const auto in_a_thread = [this, running](std::function<void()> body) {
    const DWORD id = world.Spawn(*sim::Self().process(), "side" + std::to_string(players_.size()),
                                 std::move(body));
    players_.push_back(id);
    running->push_back(id);
  };
  const auto all_end = [this, running, manner] {
    for (const DWORD id : *running)
      while (world.IsRunning(id)) Sleep(std::max<DWORD>(5, manner.pause_ms / 100));
  };
  in_a_thread(send_all);
  if (manner.leaving == Manner::kByReset) {
    in_a_thread([receive, target, stop] { receive(target, *stop); });
    Sleep(manner.stays_ms);
    *stop = true;
    shutdown(caller->socket(), SD_BOTH);
    all_end();
    const uint16_t linger_now[2] = {1, 0};
    setsockopt(caller->socket(), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(linger_now),
               sizeof linger_now);
    return "reset";
  }
  const bool never = false;
  std::string end = receive(target, never);
  all_end();
  if (!end.empty()) return end;
  if (manner.leaving == Manner::kShutsFirst) shutdown(caller->socket(), SD_SEND);
  if (manner.leaving != Manner::kWhenAllIsDone) {
    end = receive(target + 1, never);
    EXPECT_EQ(got->size(), target) << "bytes that nobody sent";
  }
  return "done";
}

void WholeWorld::Serve(SOCKET s, Call* call) {
  Caller caller(s, Style::kBlocks);
  std::string hello;
  while (hello.size() < kHelloSize) {
    char bytes[kHelloSize];
    const int n = caller.Receive(bytes, static_cast<int>(kHelloSize - hello.size()));
    if (n <= 0) {
      call->end = "closed";
      return;
    }
    hello.append(bytes, static_cast<size_t>(n));
  }
  const size_t id = static_cast<size_t>(std::strtoul(hello.c_str(), nullptr, 10));
  ASSERT_LT(id, streams_.size()) << hello;
  Stream& stream = streams_[id];
  if (!stream.ReachesTheServer(hello)) return;
  stream.host_end = LiveOn(&caller, stream.host, stream.down, stream.up.size() - kHelloSize,
                           &stream.down_sent, &stream.up_got);
  call->end = stream.host_end;
}

void WholeWorld::ExpectStreams() {
  for (const Stream& stream : streams_) {
    SCOPED_TRACE(stream.Text() + ", " + kStyleNames[static_cast<size_t>(stream.style)]);
    stream.ExpectPrefixes();
  }
}

}  // namespace whole_test
