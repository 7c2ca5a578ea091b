// The verdict of a burst by its own answers. At stake: it comes as soon as it is certain, and not
// before.
#include "quality/probe_burst.h"

#include <gtest/gtest.h>

namespace moru_vyr::lsp {
namespace {

constexpr u32 kAnswerWaitMs = 100;
constexpr u32 kLossLimit = 30;  // percent: three of ten
constexpr std::optional<bool> kOpen, kLossy = true, kFine = false;

// Ten probes with the numbers 1 to 10, ten milliseconds apart, from 1000 on.
class ProbeBurstOfTen : public testing::Test {
 protected:
  void Sends(u32 first, u32 last) {
    for (u32 seq = first; seq <= last; ++seq) burst.NoteSent(seq, 990 + 10 * seq);
  }
  void Answers(u32 first, u32 last) {
    for (u32 seq = first; seq <= last; ++seq) burst.NoteAnswered(seq);
  }
  std::optional<bool> At(u32 now) const { return burst.IsLossy(now, kAnswerWaitMs, kLossLimit); }

  ProbeBurst burst;

 private:
  void SetUp() override { burst.Start(10); }
};

TEST_F(ProbeBurstOfTen, IsFineOnceTooFewCanStillBeLost) {
  Sends(1, 10);
  Answers(1, 7);
  EXPECT_EQ(At(1095), kOpen);
  Answers(9, 9);
  EXPECT_EQ(At(1095), kFine) << "two are open, and three would be needed";
}

TEST_F(ProbeBurstOfTen, WaitsForWhatIsOnItsWay) {
  Sends(1, 10);
  EXPECT_EQ(At(1090), kOpen) << "the last has just left, as none is back";
  EXPECT_EQ(At(1119), kOpen) << "two are overdue";
  EXPECT_EQ(At(1120), kLossy);
  Answers(1, 3);
  EXPECT_EQ(At(1120), kOpen) << "late, and in time for the verdict";
}

TEST_F(ProbeBurstOfTen, IsDecidedBeforeItsLastProbe) {
  Sends(1, 3);
  EXPECT_EQ(At(1120), kLossy);
  Answers(1, 3);
  Sends(4, 8);
  Answers(4, 8);
  EXPECT_EQ(At(1090), kFine);
}

TEST_F(ProbeBurstOfTen, AProbeThatCannotLeaveIsLostAtOnce) {
  burst.NoteSent(0, 1000);
  burst.NoteSent(0, 1010);
  EXPECT_EQ(At(1010), kOpen);
  burst.NoteAnswered(0);
  burst.NoteSent(0, 1020);
  EXPECT_EQ(At(1020), kLossy);
}

TEST_F(ProbeBurstOfTen, OtherAndRepeatedAnswersDoNotCount) {
  Sends(1, 10);
  for (int i = 0; i < 8; ++i) Answers(5, 5);
  Answers(11, 30);
  EXPECT_EQ(At(1095), kOpen);
}

TEST_F(ProbeBurstOfTen, TheTickCountMayWrap) {
  burst.NoteSent(1, 0u - 10);
  burst.NoteSent(2, 0u - 10);
  burst.NoteSent(3, 0u - 10);
  EXPECT_EQ(At(89), kOpen);
  EXPECT_EQ(At(90), kLossy);
}

TEST(ProbeBurst, OfMoreThanItHoldsIsJudgedByThoseItHolds) {
  ProbeBurst burst;
  EXPECT_FALSE(burst.IsRunning());
  burst.Start(100'000);
  EXPECT_TRUE(burst.IsRunning());
  for (u32 seq = 1; seq <= 2 * ProbeBurst::kMost; ++seq) burst.NoteSent(seq, 1000);
  for (u32 seq = 1; seq <= ProbeBurst::kMost; ++seq) burst.NoteAnswered(seq);
  EXPECT_EQ(burst.IsLossy(9000, kAnswerWaitMs, 1), kFine);
  burst.Stop();
  EXPECT_FALSE(burst.IsRunning());
}

}  // namespace
}  // namespace moru_vyr::lsp
