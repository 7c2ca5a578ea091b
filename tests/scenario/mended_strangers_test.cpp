// Datagrams from addresses that the game has never sent to. With mending each source has a port of
// the relay; sources that nobody asked for must not be able to take them all.
#include "tests/scenario/udp_world.h"
//
#include <string>

#include "udp/peer_ports.h"

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT

class MendedStrangers : public UdpWorld {
 protected:
  MendedStrangers() : UdpWorld(kMendAll) {}

  // From that port of the server's machine to where the game's datagrams come from.
  void SendsToGame(int port, const std::string& text) {
    const std::string to = heard.back().from_full;
    world.SpawnOn(server_host, "stranger", [port, text, to] {
      const size_t colon = to.find(':');
      const SOCKET s = Udp();
      EXPECT_EQ(BindTo(s, "198.51.100.14", port), 0);
      const sockaddr_in address = At(to.substr(0, colon).c_str(), std::stoi(to.substr(colon + 1)));
      sendto(s, text.data(), static_cast<int>(text.size()), 0, Raw(address), sizeof address);
      closesocket(s);
    });
    RunFor(100ms);
  }
};

SCENARIO_F(MendedStrangers, AreHeardUnderTheirOwnNamesAsFarAsThereIsRoom) {
  Starts();
  const SOCKET s = Udp();
  ASSERT_EQ(Talks(s, "hello", kDirect), "hello from " + std::string(kDirect) + ":27015");
  const int most = static_cast<int>(PeerPorts::kStrangers);
  for (int i = 0; i <= most; ++i) SendsToGame(5000 + i, "from " + std::to_string(i));
  for (int i = 0; i < most; ++i) {
    const Datagram came = Receives(s, 500);
    EXPECT_EQ(came.text, "from " + std::to_string(i));
    EXPECT_EQ(came.from, "198.51.100.14:" + std::to_string(5000 + i));
  }
  EXPECT_EQ(Receives(s, 500).text, "") << "one more than there is room for";
  SendsToGame(5000, "once more");
  EXPECT_EQ(Receives(s, 500).from, "198.51.100.14:5000");
  EXPECT_EQ(Talks(s, "bye", kDirect), "bye from " + std::string(kDirect) + ":27015");
}

}  // namespace
