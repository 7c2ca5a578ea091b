// Sockets that were closed without telling the relay. At stake: each is ended once, even if its
// session comes later than the note of its end, and notes about no session do not accumulate.
#include "udp/untold_ends.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace moru_vyr::lsp {
namespace {

class UntoldEndsTest : public testing::Test {
 protected:
  // One pass; returns the tokens that were looked up. Those with a session are ended.
  std::vector<u32> Turn() {
    std::vector<u32> asked;
    ends.OnTurn([&](u32 token) {
      asked.push_back(token);
      return sessions.erase(token) != 0;
    });
    return asked;
  }

  UntoldEnds ends;
  std::set<u32> sessions;
};

TEST_F(UntoldEndsTest, ASessionIsEndedOnce) {
  sessions = {1, 2, 3};
  EXPECT_TRUE(Turn().empty());
  ends.Add(2);
  EXPECT_EQ(Turn(), std::vector<u32>{2});
  EXPECT_TRUE(Turn().empty());
  EXPECT_EQ(sessions, (std::set<u32>{1, 3}));
}

TEST_F(UntoldEndsTest, ASessionThatIsCreatedLaterIsAlsoEnded) {
  ends.Add(7);
  for (u32 turn = 1; turn < UntoldEnds::kTurns; ++turn) EXPECT_EQ(Turn().size(), 1u) << turn;
  sessions = {7};
  EXPECT_EQ(Turn(), std::vector<u32>{7});
  EXPECT_TRUE(sessions.empty());
  EXPECT_TRUE(Turn().empty());
}

TEST_F(UntoldEndsTest, ASocketWithoutASessionIsForgotten) {
  ends.Add(7);
  for (u32 turn = 0; turn < UntoldEnds::kTurns; ++turn) Turn();
  sessions = {7};
  EXPECT_TRUE(Turn().empty());
  EXPECT_EQ(sessions.size(), 1u);
  // The next note in its place gets its full number of passes.
  ends.Add(8);
  for (u32 turn = 0; turn < UntoldEnds::kTurns; ++turn) EXPECT_EQ(Turn().size(), 1u) << turn;
  EXPECT_TRUE(Turn().empty());
}

TEST_F(UntoldEndsTest, ThereIsRoomForAsManyAsTheRelayCanPoll) {
  for (u32 token = 1; token <= UntoldEnds::kPlaces + 1; ++token) ends.Add(token);
  EXPECT_EQ(Turn().size(), UntoldEnds::kPlaces);
  sessions = {1};
  Turn();
  EXPECT_TRUE(sessions.empty());
  ends.Add(4711);
  sessions = {4711};
  Turn();
  EXPECT_TRUE(sessions.empty()) << "a place is free again";
}

}  // namespace
}  // namespace moru_vyr::lsp
