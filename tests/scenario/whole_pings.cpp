// The whole world's raw pings.
#include "tests/scenario/whole_world.h"

namespace whole_test {
namespace {

constexpr int kPingBytes = 64;

std::string EchoRequest(int sequence) {
  std::string message(kPingBytes, '\0');
  message[0] = 8;
  message[7] = static_cast<char>(sequence);
  const unsigned sum = 0xffffu - (0x0800u + static_cast<unsigned>(sequence));
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
  if (ConnectTo(s, pinger->server, 0) == 0) {
    for (int sequence = 1; sequence <= pinger->pings; ++sequence) {
      if (pinger->pause_ms > 0) Sleep(pinger->pause_ms);
      SendText(s, EchoRequest(sequence));
      for (int ms = 0; ms < 1000; ms += 20, Sleep(20)) {
        const std::string reply = Received(s);
        if (reply.rfind("error", 0) == 0) continue;
        EXPECT_EQ(reply.size(), 20u + kPingBytes);
        EXPECT_LE(reply.size() > 27 ? reply[27] : 127, sequence) << "answers what nobody asked";
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
  SendText(ping, EchoRequest(1));
  for (int ms = 0; ms < 1000 && Received(ping) == "error 10035"; ms += 10) RunFor(10ms);
  closesocket(ping);
}

}  // namespace whole_test
