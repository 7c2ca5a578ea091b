// A flow that moves to another socket: only between two that are watched.
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace moru_vyr::lsp
