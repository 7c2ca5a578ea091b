// The whole world's raw pings.
#include "tests/scenario/whole_world.h"

namespace whole_test {
namespace {

constexpr int kPingBytes = 64;

constexpr size_t kIdAt = 20 + 5, kSequenceAt = 20 + 7;  // in a reply

std::string EchoRequest(int id, int sequence) {
  std::string message(kPingBytes, '\0');
  message[0] = 8;
  message[5] = static_cast<char>(id);
  message[7] = static_cast<char>(sequence);
  const unsigned sum = 0xffffu - (0x0800u + static_cast<unsigned>(id + sequence));
  message[2] = static_cast<char>(sum >> 8);
  message[3] = static_cast<char>(sum);
  return message;
}

}  // namespace

void WholeWorld::PlanPinger(const Stretch& stretch) {
  Pinger& pinger = pingers_.emplace_back();
  pinger.server = Any(kServers);
  pinger.starts_ms = static_cast<DWORD>(Below(stretch.length_ms / 2));
  pinger.pings = 1 + static_cast<int>(Below(20));
}

void WholeWorld::PingAll(Pinger* pinger) {
  Sleep(pinger->starts_ms);
  pinger->makes_socket = true;
  const SOCKET s = pinger->s = Ping();
  pinger->makes_socket = false;
  if (s == INVALID_SOCKET) return;
  u_long on = 1;
  ioctlsocket(s, static_cast<long>(FIONBIO), &on);
  const int id = 1 + static_cast<int>((pinger - pingers_.data()) % 100);
  if (ConnectTo(s, pinger->server, 0) == 0) {
    for (int sequence = 1; sequence <= pinger->pings; ++sequence) {
      if (pinger->pause_ms > 0) Sleep(pinger->pause_ms);
      SendText(s, EchoRequest(id, sequence));
      for (const auto end = world.now() + 1s; world.now() < end; Sleep(20)) {
        const std::string reply = Received(s);
        if (reply.rfind("error", 0) == 0) continue;
        EXPECT_EQ(reply.size(), 20u + kPingBytes);
        if (reply.size() != 20u + kPingBytes) break;
        if (reply[kIdAt] != id) continue;  // to another pinger: a raw socket gets all of a host
        EXPECT_LE(reply[kSequenceAt], sequence) << "answers what nobody asked";
        ++pinger->answered;
        break;
      }
    }
  }
  closesocket(s);
  pinger->s = INVALID_SOCKET;
}

void WholeWorld::PingOnce() {
  const SOCKET ping = Ping();
  NonBlocking(ping);
  EXPECT_EQ(ConnectTo(ping, kServer, 0), 0);
  SendText(ping, EchoRequest(101, 1));
  for (int ms = 0; ms < 1000 && Received(ping) == "error 10035"; ms += 10) RunFor(10ms);
  closesocket(ping);
}

}  // namespace whole_test
