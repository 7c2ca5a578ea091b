#include "tests/unit/socket_storm.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace {

TEST(SocketStorm, TwoHundredThreadsLoseNoRecord) {
  test::StormResult result;
  test::LogCapture log(6);  // the calls themselves, not the writing of lines
  test::RunSocketStorm(200, 20, &result);
  EXPECT_EQ(result.sockets, 200 * 20);
  EXPECT_EQ(result.lost_records, 0);
  EXPECT_EQ(result.failed_calls, 0);
  EXPECT_EQ(result.repeated_tokens, 0);
}

TEST(SocketStorm, WithEveryLineWritten) {
  test::StormResult result;
  test::LogCapture log(0);
  test::RunSocketStorm(200, 5, &result);
  EXPECT_EQ(result.sockets, 200 * 5);
  EXPECT_EQ(result.lost_records, 0);
  EXPECT_EQ(result.failed_calls, 0);
}

}  // namespace
