// The relay's own port, which any thread may read while the worker opens and closes it.
#include <winsock2.h>

#include <gtest/gtest.h>

#include <atomic>

#include "relay/relay_interfaces.h"
#include "tests/support/threads.h"
#include "udp/udp_provider.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT

class NoLoop final : public IRelaySocketMgr {
 public:
  common::u32 AddSocket(SOCKET, IRelaySocketDelegate*) noexcept override { return 0; }
  common::u32 EnableWrite(SOCKET) noexcept override { return 0; }
  void StopReading(SOCKET) noexcept override {}
  IRelaySocketDelegate* RemoveSocket(SOCKET) noexcept override { return nullptr; }
  common::u32 NextToken() noexcept override { return 0; }
};

TEST(ProviderRace, AskingForThePortWhileItComesAndGoes) {
  NoLoop loop;
  const std::atomic<bool> stopping{false};
  UdpProvider provider(stopping);
  std::atomic<bool> over{false};
  std::atomic<int> open{0};
  test::RunThreads(2, [&](int thread) {
    if (thread == 0) {
      // On a busy machine the other thread may not have run yet after a thousand.
      for (int i = 0; i < 1000 || (open == 0 && i < 1'000'000); ++i) {
        EXPECT_TRUE(provider.Init(&loop, nullptr));
        provider.Uninit();
      }
      over = true;
      return;
    }
    while (!over) {
      sockaddr_in address = {};
      provider.GetLocalAddr(&address);
      EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
      if (address.sin_port != 0) ++open;
    }
  });
  EXPECT_GT(open.load(), 0);
}

}  // namespace
