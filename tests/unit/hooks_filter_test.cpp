// What the failure filter keeps for a socket.
#include <gtest/gtest.h>

#include "hooks/hook_entries.h"
#include "sockets/socket_error_filter.h"
#include "sockets/socket_map.h"
#include "tests/support/log_capture.h"
#include "tests/unit/scripted_provider.h"

namespace moru_vyr::lsp {
namespace {

struct FilteredHooks : testing::Test {
  FilteredHooks() {
    WSPSocket(AF_INET, 1, 6, nullptr, 0, 1, &error);
    const SocketRecord record = GetSocketMap().Get(next.socket);
    token = record.token;
  }
  void FailConnects(int count) {
    next.result = -1;
    next.error = 10061;
    for (int i = 0; i < count; ++i) {
      WSPConnect(next.socket, reinterpret_cast<const sockaddr*>(&server), sizeof server, nullptr,
                 nullptr, nullptr, nullptr, &error);
    }
  }

  test::ScriptedProvider next;
  const sockaddr_in server = test::Address("198.51.100.20", 8080);
  INT error = 0;
  u32 token = 0;
};

TEST_F(FilteredHooks, ConnectCountsUnderItsOwnNumber) {
  test::LogCapture log(5);
  FailConnects(7);
  SocketErrorFilter& filter = GetSocketErrorFilter();
  EXPECT_FALSE(filter.ShouldLog(kOperationConnect, 10061, token));
  for (const int other : {kOperationSend, kOperationSendTo, kOperationRecv, kOperationRecvFrom}) {
    EXPECT_TRUE(filter.ShouldLog(other, 10061, token)) << other;
  }
}

// A process that opens and closes sockets for days must not collect what they once failed with.
TEST_F(FilteredHooks, CloseResetsTheCounts) {
  test::LogCapture log(5);
  FailConnects(7);
  next.result = 0;
  EXPECT_EQ(WSPCloseSocket(next.socket, &error), 0);
  EXPECT_TRUE(GetSocketErrorFilter().ShouldLog(kOperationConnect, 10061, token));
}

}  // namespace
}  // namespace moru_vyr::lsp
