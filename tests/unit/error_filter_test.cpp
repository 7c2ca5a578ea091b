#include <gtest/gtest.h>

#include "sockets/socket_error_filter.h"

namespace moru_vyr::lsp {
namespace {

int LinesLogged(SocketErrorFilter& filter, int operation, int error, u32 token, int attempts) {
  int logged = 0;
  for (int i = 0; i < attempts; ++i) logged += filter.ShouldLog(operation, error, token);
  return logged;
}

TEST(SocketErrorFilter, LogsOneKindOfFailureFiveTimes) {
  SocketErrorFilter filter;
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(filter.ShouldLog(1, 10054, 7)) << i;
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(filter.ShouldLog(1, 10054, 7)) << i;
}

TEST(SocketErrorFilter, CountsErrorOperationAndTokenApart) {
  SocketErrorFilter filter;
  EXPECT_EQ(LinesLogged(filter, 1, 10054, 7, 9), 5);
  EXPECT_EQ(LinesLogged(filter, 1, 10053, 7, 9), 5);
  EXPECT_EQ(LinesLogged(filter, 2, 10054, 7, 9), 5);
  EXPECT_EQ(LinesLogged(filter, 1, 10054, 8, 9), 5);
}

TEST(SocketErrorFilter, SuccessIsAFailureKindLikeOthers) {
  SocketErrorFilter filter;
  EXPECT_EQ(LinesLogged(filter, kOperationConnect, 0, 7, 9), 5);
}

TEST(SocketErrorFilter, ForgetStartsTheCountAgain) {
  SocketErrorFilter filter;
  EXPECT_EQ(LinesLogged(filter, 1, 10054, 7, 9), 5);
  EXPECT_EQ(LinesLogged(filter, 1, 10054, 8, 9), 5);
  filter.Forget(7);
  EXPECT_EQ(LinesLogged(filter, 1, 10054, 7, 9), 5);
  EXPECT_EQ(LinesLogged(filter, 1, 10054, 8, 9), 0);
  filter.Forget(99);  // unknown
}

TEST(SocketErrorFilter, OperationsHaveTheirNumbers) {
  EXPECT_EQ(kOperationSend, 1);
  EXPECT_EQ(kOperationSendTo, 2);
  EXPECT_EQ(kOperationRecv, 3);
  EXPECT_EQ(kOperationRecvFrom, 4);
  EXPECT_EQ(kOperationConnect, 5);
}

}  // namespace
}  // namespace moru_vyr::lsp
