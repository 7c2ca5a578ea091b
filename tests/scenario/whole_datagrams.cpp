// The whole world's datagrams: their players, the server that answers each, and what must have
// arrived.
#include <algorithm>

#include "port/sim/threads.h"
#include "tests/scenario/whole_world.h"

namespace whole_test {

void WholeWorld::PlanTalker(const Stretch& stretch) {
  Talker& talker = talkers_.emplace_back();
  talker.starts_ms = static_cast<DWORD>(Below(stretch.length_ms / 2));
  const DWORD pauses[] = {3, 40, 300, 300};
  talker.pause_ms = Any(pauses);
  talker.stays_ms = static_cast<DWORD>(Below(Chance(70) ? 3000 : 15'000));
  talker.reads = Chance(85);
  talker.style = static_cast<Style>(Below(4));
  const size_t servers = 1 + static_cast<size_t>(Below(std::size(kServers)));
  for (size_t n = 1 + Below(Chance(50) ? 40 : 150); n > 0; --n) PlanDatagram(servers, &talker);
}

void WholeWorld::PlanDatagram(size_t servers, Talker* talker) {
  const size_t id = said_.size();
  Said& one = said_.emplace_back();
  one.ip = kServers[Below(servers)];
  one.port = Chance(80) ? kPort : kOtherPort;
  const size_t size = Chance(2) ? 2020 + Below(60) : kIdSize + Below(Chance(50) ? 4 : 200);
  one.text = Noise(IdText(id), world.seed() * 100'000 + id, size);
  talker->says.push_back(id);
}

void WholeWorld::Talk(Talker* talker) {
  Sleep(talker->starts_ms);
  talker->makes_socket = true;
  const SOCKET s = Udp();
  if (s != INVALID_SOCKET) talker->caller = std::make_unique<Caller>(s, talker->style);
  talker->makes_socket = false;
  if (s == INVALID_SOCKET) return;
  const int room = 1 << 20;
  setsockopt(s, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&room), sizeof room);
  const auto over = std::make_shared<bool>(false);
  // An unbound socket receives nothing before it has sent, and Windows refuses to try.
  sim::Random random(world.seed() * 31 + talker->says.front());
  Send(talker, talker->says.front());
  DWORD reader = 0;
  if (talker->reads) {
    // This thread may be ended before it can say that all is over.
    const DWORD self = GetCurrentThreadId();
    reader = world.Spawn(world.home(), "side" + std::to_string(players_.size()),
                         [this, talker, over, self] {
                           while (!*over && world.IsRunning(self)) Read(talker);
                         });
    players_.push_back(reader);
  }
  for (size_t i = 1; i < talker->says.size(); ++i) {
    Sleep(talker->beat_ms + static_cast<DWORD>(random.Below(talker->pause_ms + 1)));
    Send(talker, talker->says[i]);
  }
  Sleep(talker->stays_ms);
  *over = true;
  while (world.IsRunning(reader)) Sleep(std::max<DWORD>(5, talker->look_ms / 20));
  talker->caller->Close();
}

void WholeWorld::Send(Talker* talker, size_t id) {
  Said& one = said_[id];
  one.tried = true;
  one.sent = talker->caller->SendTo(one.text, one.ip, one.port) == 0;
}

void WholeWorld::Read(Talker* talker) {
  std::string text;
  sockaddr_in source = {};
  const int error = talker->caller->ReceiveFrom(&text, &source, talker->look_ms);
  if (error != 0) {
    if (error != WSAETIMEDOUT) Sleep(5);
    return;
  }
  const std::string ip = inet_ntoa(source.sin_addr);
  const std::string from = ip + ":" + std::to_string(ntohs(source.sin_port));
  // Kept: a direct flow passes on datagrams of any sender, even of a node that answers too late.
  if (ip == kNodeA || ip == kNodeB || ip == kNodeC) return;
  if (text.empty() || text[0] != 'R' || IdOf(text, 1) >= said_.size()) {
    ADD_FAILURE() << "was never sent: " << text.substr(0, 60) << " from " << from;
    return;
  }
  Said& one = said_[IdOf(text, 1)];
  ++one.answered;
  const std::string head = text.substr(0, text.find('|'));
  const std::string named = head.substr(std::min(head.size(), kIdSize + 2));
  EXPECT_TRUE(text == AnswerTo(one.text, named)) << "changed: " << text.substr(0, 60);
  // Kept: a datagram that is alone of its length gets the address that waits, also where that is
  // another's; and a receive that completes late names the relay.
  if (!IsMended()) return;
  EXPECT_EQ(named, one.to()) << "misled: " << text.substr(0, 60);
  // Kept: what was in the socket when its first unseen receive left it direct names the relay.
  if (talker->caller->ReceivesUnseen() && ip == "127.0.0.1") return;
  EXPECT_EQ(from, one.to()) << text.substr(0, 60);
}

void WholeWorld::StartEcho(const char* ip, int port) {
  const std::string name = std::string(ip) + ":" + std::to_string(port);
  world.SpawnOn(server_host, "echo " + name, [this, ip, port, name] {
    const SOCKET s = Udp();
    EXPECT_EQ(BindTo(s, ip, port), 0);
    SetIntOption(s, SO_RCVBUF, 1 << 20);
    std::string bytes(65'536, '\0');
    while (true) {
      sockaddr_in from = {};
      int size = sizeof from;
      const int n = recvfrom(s, bytes.data(), static_cast<int>(bytes.size()), 0, Raw(from), &size);
      if (n == SOCKET_ERROR) continue;
      const std::string text = bytes.substr(0, static_cast<size_t>(n));
      heard_.push_back({text, name});
      if (text.size() < kIdSize) continue;
      const std::string answer = AnswerTo(text, name);
      sendto(s, answer.data(), static_cast<int>(answer.size()), 0, Raw(from), size);
    }
  });
}

void WholeWorld::ExpectDatagrams() {
  for (const Heard& came : heard_) {
    const Said* const one = CountArrival(came.text, &said_);
    if (one != nullptr && IsMended()) {
      EXPECT_EQ(came.to, one->to()) << "misled: " << one->text.substr(0, 60);
    }
  }
  for (const Said& one : said_) {
    // A thread that was ended may have been in the middle of its call.
    EXPECT_LE(one.arrived, one.sent || (one.tried && game_thread_is_ended_) ? 1u : 0u)
        << one.text.substr(0, 30) << " to " << one.to();
    EXPECT_LE(one.answered, one.arrived) << one.text.substr(0, 30);
  }
}

void WholeWorld::ExpectADatagramIsAnswered() {
  const SOCKET u = Udp();
  const std::string text = "000000 still there";
  std::string answer;
  for (int tries = 0; tries < 3 && answer.empty(); ++tries) {
    SendTextTo(u, text, kServer, kPort);
    if (ReadableWithin(u, 12'000)) answer = Received(u);
  }
  EXPECT_EQ(answer, AnswerTo(text, std::string(kServer) + ":" + std::to_string(kPort)));
  closesocket(u);
}

}  // namespace whole_test
