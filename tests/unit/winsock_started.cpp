// A process that opens sockets has started Winsock; the library's own sockets rely on it.
#include <gtest/gtest.h>
#include <winsock2.h>

namespace {

class WinsockStarted : public testing::Environment {
 public:
  void SetUp() override {
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  }
  void TearDown() override { WSACleanup(); }
};

[[maybe_unused]] const testing::Environment* const started =
    testing::AddGlobalTestEnvironment(new WinsockStarted);

}  // namespace
