// A flow that moves to another socket: only between two that are watched.
#include <gtest/gtest.h>

#include "common/text.h"
#include "tests/support/tracker_fixture.h"

namespace moru_vyr::lsp {
namespace {

using MovedFlow = test::TrackerTest;

TEST_F(MovedFlow, NothingMovesFromOrToASocketThatIsNotWatched) {
  constexpr SOCKET kOther = test::kSocket + 1;
  const AccDecisionInfo decision = test::SomeDecision();
  tracker.AddToWatchList(test::kSocket, kTrackUdp, test::kToken);
  tracker.RecordSend(test::kSocket, 10, 0);
  tracker.MoveFlow(test::kSocket, kOther, &decision);
  tracker.MoveFlow(kOther, test::kSocket, &decision);
  tracker.MoveFlow(test::kSocket, test::kSocket, &decision);
  ASSERT_NE(tracker.Find(test::kSocket), nullptr);
  EXPECT_EQ(Record().total_sent_bytes, 10u);
  EXPECT_EQ(tracker.Find(kOther), nullptr);
}

TEST_F(MovedFlow, WhatItHasCarriedGoesWithIt) {
  constexpr SOCKET kOther = test::kSocket + 1;
  const AccDecisionInfo decision = test::SomeDecision();
  tracker.AddToWatchList(test::kSocket, kTrackUdp, test::kToken);
  tracker.RecordSend(test::kSocket, 10, 0);
  tracker.AddToWatchList(kOther, kTrackUdp, test::kToken);
  tracker.RecordSend(kOther, 5, 0);
  tracker.MoveFlow(test::kSocket, kOther, &decision);
  EXPECT_EQ(tracker.Find(test::kSocket), nullptr);
  ASSERT_NE(tracker.Find(kOther), nullptr);
  EXPECT_EQ(tracker.Find(kOther)->total_sent_bytes, 15u);
}

// Its figures are those of one flow: sums of what both sockets have carried, the first error that
// there was and the last, and the server that it has gone to all the time.
TEST_F(MovedFlow, ItsFiguresGoOn) {
  constexpr SOCKET kOther = test::kSocket + 1;
  AddAccelerated();
  AddAccelerated(kOther, "other");
  SocketQosRecord& was = *tracker.Find(test::kSocket);
  SocketQosRecord& now = *tracker.Find(kOther);
  using Field = u32 SocketQosRecord::*;
  const Field sums[] = {&SocketQosRecord::total_recv_bytes,   &SocketQosRecord::total_sent_bytes,
                        &SocketQosRecord::total_recv_packets, &SocketQosRecord::total_sent_packets,
                        &SocketQosRecord::total_recv_errors,  &SocketQosRecord::total_sent_errors};
  const Field firsts[] = {&SocketQosRecord::first_recv_error_code,
                          &SocketQosRecord::first_send_error_code};
  const Field lasts[] = {&SocketQosRecord::curr_recv_error_code,
                         &SocketQosRecord::curr_send_error_code, &SocketQosRecord::last_send_tick};
  const Field olds[] = {&SocketQosRecord::create_tick, &SocketQosRecord::direct_delay,
                        &SocketQosRecord::direct_lost, &SocketQosRecord::game_idc};
  const auto set = [&](const auto& fields, u32 before, u32 after) {
    for (const Field field : fields) {
      was.*field = before;
      now.*field = after;
    }
  };
  set(sums, 30, 4);
  set(firsts, 1, 2);
  set(lasts, 1, 2);
  set(olds, 5, 6);
  was.game_port = 7001;
  common::SetFieldText(was.game_ip, "198.51.100.77");
  was.recovery_info = "0-1-2";
  now.is_acce = false;

  const AccDecisionInfo decision = test::SomeDecision();
  tracker.MoveFlow(test::kSocket, kOther, &decision);
  const SocketQosRecord& moved = Record(kOther);
  for (const Field field : sums) EXPECT_EQ(moved.*field, 34u);
  for (const Field field : firsts) EXPECT_EQ(moved.*field, 1u);
  for (const Field field : lasts) EXPECT_EQ(moved.*field, 2u);
  for (const Field field : olds) EXPECT_EQ(moved.*field, 5u);
  EXPECT_EQ(moved.game_port, 7001);
  EXPECT_STREQ(moved.game_ip, "198.51.100.77");
  EXPECT_EQ(moved.guid, "guid");
  EXPECT_EQ(moved.recovery_info, "0-1-2");
  EXPECT_TRUE(moved.is_acce);
}

TEST_F(MovedFlow, WhatTheNewSocketHasNotMetYetIsThatOfTheOld) {
  constexpr SOCKET kOther = test::kSocket + 1;
  AddAccelerated();
  tracker.AddToWatchList(kOther, kTrackUdp, test::kToken);
  SocketQosRecord& was = *tracker.Find(test::kSocket);
  u32 SocketQosRecord::*const fields[] = {
      &SocketQosRecord::first_recv_error_code, &SocketQosRecord::first_send_error_code,
      &SocketQosRecord::curr_recv_error_code,  &SocketQosRecord::curr_send_error_code,
      &SocketQosRecord::last_send_tick,        &SocketQosRecord::last_recv_tick};
  u32 value = 10;
  for (const auto field : fields) was.*field = ++value;
  const AccDecisionInfo decision = test::SomeDecision();
  tracker.MoveFlow(test::kSocket, kOther, &decision);
  value = 10;
  for (const auto field : fields) EXPECT_EQ(Record(kOther).*field, ++value);
}

}  // namespace
}  // namespace moru_vyr::lsp
