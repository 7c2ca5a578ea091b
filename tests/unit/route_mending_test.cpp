// What is mended for a game, by what the client program has written.
#include "route/mending.h"

#include <gtest/gtest.h>
#include <memoryapi.h>

#include <string>

#include "common/handle.h"
#include "tests/support/end_worker.h"
#include "tests/support/route_fixture.h"
#include "tests/support/threads.h"
#include "tests/unit/trace_capture.h"

#ifndef _WIN32
#include "port/shared/faults.h"
#endif

namespace moru_vyr::lsp {
namespace {

class MendingRegionTest : public testing::Test {
 protected:
  MendingRegionTest() { test::EndWorker(); }
  ~MendingRegionTest() override { ReadMending(kMaxGames); }

  // The bits of the game in that place.
  u32 ReadBits(u32 place = 0) {
    ReadMending(place);
    return GetMending().bits();
  }
};

TEST_F(MendingRegionTest, WithoutARegionNothingIsMended) {
  EXPECT_EQ(ReadBits(), 0u);
  EXPECT_FALSE(GetMending().PassesOnHalfClose());
  EXPECT_FALSE(GetMending().LeavesFailedNode());
  EXPECT_FALSE(GetMending().PassesOnReset());
}

TEST_F(MendingRegionTest, EachGameHasItsOwnBits) {
  test::ClientRegion<MendingRegion> region(kMendingRegionName);
  region->games[0].mended = kMendReset;
  region->games[9].mended = kMendHalfClose;
  EXPECT_EQ(ReadBits(0), kMendReset);
  EXPECT_TRUE(GetMending().PassesOnReset());
  EXPECT_EQ(ReadBits(1), 0u);
  EXPECT_EQ(ReadBits(9), kMendHalfClose);
  EXPECT_TRUE(GetMending().PassesOnHalfClose());
  EXPECT_EQ(ReadBits(kMaxGames), 0u);
}

int TracedTimes(const std::string& text) {
  int times = 0;
  for (const std::string& line : test::TraceCapture::lines())
    if (line.find(text) != line.npos) ++times;
  return times;
}

TEST_F(MendingRegionTest, TheTraceSaysWhatIsMended) {
  const test::TraceCapture trace;
  test::ClientRegion<MendingRegion> region(kMendingRegionName);
  region->games[0].mended = kMendReset;
  ReadMending(0);
  EXPECT_EQ(TracedTimes("mending: 0x4"), 1);
  ReplaceMending(Mending({.mended = kMendHalfClose}));
  EXPECT_EQ(TracedTimes("mending: 0x1"), 1);
  ReplaceMending(Mending());
  EXPECT_EQ(TracedTimes("mending: "), 2) << "nothing is not worth a line";
  region->header.minor_ver += 1;
  ReadMending(0);
  EXPECT_EQ(TracedTimes("mending: size "), 1);
}

#ifndef _WIN32
// What cannot be read has no version that could be wrong.
TEST_F(MendingRegionTest, ARegionThatCannotBeReadIsNotBlamedForItsVersion) {
  const test::TraceCapture trace;
  test::ClientRegion<MendingRegion> region(kMendingRegionName);
  region->games[0].mended = kMendReset;
  port::FailCall("MapViewOfFile", 0, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(ReadBits(0), 0u);
  port::ClearFaults();
  EXPECT_EQ(TracedTimes("mending: "), 0);
}
#endif

struct Question {
  const char* name;
  bool (Mending::*asked)() const noexcept;
  u32 bits;  // each of which says yes
};
const Question kQuestions[] = {
    {"PassesOnHalfClose", &Mending::PassesOnHalfClose, kMendHalfClose},
    {"LeavesFailedNode", &Mending::LeavesFailedNode, kMendFailedNode},
    {"LeavesUnreachableNode", &Mending::LeavesUnreachableNode, kMendFailedNode},
    {"PassesOnReset", &Mending::PassesOnReset, kMendReset},
    {"PostponesConnects", &Mending::PostponesConnects, kMendRefusal},
    {"KeepsConnectExResult", &Mending::KeepsConnectExResult, kMendConnectEx},
    {"ServesAgain", &Mending::ServesAgain, kMendRestart},
    {"FallsBackFast", &Mending::FallsBackFast, kMendFallback},
    {"BoundsClientWaits", &Mending::BoundsClientWaits, kMendStart},
    {"ReportsItsEnd", &Mending::ReportsItsEnd, kMendStart},
    {"DeliversAtItsEnd", &Mending::DeliversAtItsEnd, kMendStart},
    {"KeepsToItsPlaces", &Mending::KeepsToItsPlaces, kMendStart},
    {"ForgetsFailedConnects", &Mending::ForgetsFailedConnects, kMendStart},
    {"RestsWhileFull", &Mending::RestsWhileFull, kMendStart | kMendThroughput},
    {"RetriesDatagrams", &Mending::RetriesDatagrams, kMendStart},
    {"DropsLogPastItsTotal", &Mending::DropsLogPastItsTotal, kMendStart},
    {"NamesAsWithoutUs", &Mending::NamesAsWithoutUs, kMendNames},
    {"StartsAnewAfterSwitch", &Mending::StartsAnewAfterSwitch, kMendAfterSwitch},
    {"ConnectsDatagrams", &Mending::ConnectsDatagrams, kMendConnectedDatagram},
    {"NamesLateSources", &Mending::NamesLateSources, kMendOverlappedDatagram},
    {"GivesEachPeerAPort", &Mending::GivesEachPeerAPort,
     kMendDatagramMatch | kMendConnectedDatagram | kMendOverlappedDatagram},
    {"JudgesByAnswers", &Mending::JudgesByAnswers, kMendJudgement},
    {"FillsUnsetSettings", &Mending::FillsUnsetSettings, kMendJudgement},
    {"ReadsLargePieces", &Mending::ReadsLargePieces, kMendThroughput},
    {"SendsOnlyIntoRoom", &Mending::SendsOnlyIntoRoom, kMendThroughput},
    {"LeavesStreamBuffers", &Mending::LeavesStreamBuffers, kMendThroughput},
    {"AcceptsSeveral", &Mending::AcceptsSeveral, kMendThroughput},
    {"ReadsAsManyAsExpected", &Mending::ReadsAsManyAsExpected, kMendThroughput},
    {"ProbesOnTime", &Mending::ProbesOnTime, kMendThroughput},
};

// A game gets what was asked for and nothing else.
TEST(MendingBits, EachSaysYesToItsQuestionsOnly) {
  for (u32 bit = 1; bit != 0; bit <<= 1) {
    const Mending mending(MendingRecord{.mended = bit});
    for (const Question& question : kQuestions) {
      EXPECT_EQ((mending.*question.asked)(), (question.bits & bit) != 0)
          << question.name << ", bit " << bit;
    }
  }
  for (const Question& question : kQuestions) {
    EXPECT_FALSE((Mending().*question.asked)()) << question.name;
  }
}

TEST_F(MendingRegionTest, BitsOfALaterClientAreIgnored) {
  test::ClientRegion<MendingRegion> region(kMendingRegionName);
  region->games[0].mended = 0xffffffff;
  EXPECT_EQ(ReadBits(), kMendKnown);
}

TEST_F(MendingRegionTest, AnotherVersionAnotherSizeOrAnEmptyRecordMendNothing) {
  test::ClientRegion<MendingRegion> region(kMendingRegionName);
  region->games[0].mended = kMendAll;
  ++region->header.minor_ver;
  EXPECT_EQ(ReadBits(), 0u);
  --region->header.minor_ver;
  ++region->header.major_ver;
  EXPECT_EQ(ReadBits(), 0u);
  --region->header.major_ver;
  region->header.shared_mem_size = sizeof(MendingRegion) + 4;
  EXPECT_EQ(ReadBits(), 0u);
  region->header.shared_mem_size = sizeof(MendingRegion);
  EXPECT_EQ(ReadBits(), kMendAll);
  region->games[0].mended = 0;
  EXPECT_EQ(ReadBits(), 0u);
}

// A client that hangs with the mutex in its hands holds up no game's start for long.
TEST_F(MendingRegionTest, AMutexThatIsHeldMendsNothing) {
  test::ClientRegion<MendingRegion> region(kMendingRegionName);
  region->games[0].mended = kMendAll;
  const common::UniqueHandle mutex(CreateMutexA(nullptr, FALSE, kMendingMutexName));
  EXPECT_EQ(ReadBits(), kMendAll);
  const common::UniqueHandle taken(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  const common::UniqueHandle done(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  test::RunThreads(2, [&](int client) {
    if (client == 1) {
      WaitForSingleObject(mutex.get(), INFINITE);
      SetEvent(taken.get());
      WaitForSingleObject(done.get(), INFINITE);
      ReleaseMutex(mutex.get());
      return;
    }
    WaitForSingleObject(taken.get(), INFINITE);
    EXPECT_EQ(ReadBits(), 0u);
    SetEvent(done.get());
  });
  EXPECT_EQ(ReadBits(), kMendAll);
}

TEST_F(MendingRegionTest, ARegionWithoutMemoryMendsNothing) {
  const common::UniqueHandle hollow(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr,
                                                       PAGE_READWRITE | SEC_RESERVE, 0,
                                                       sizeof(MendingRegion), kMendingRegionName));
  ASSERT_TRUE(hollow);
  ReadWaitsOfAnyGame();
  EXPECT_EQ(ReadBits(), 0u);
}

TEST_F(MendingRegionTest, HowLongToWaitIsKnownBeforeTheGameIs) {
  ReadWaitsOfAnyGame();
  EXPECT_FALSE(GetMending().BoundsClientWaits()) << "no region";
  test::ClientRegion<MendingRegion> region(kMendingRegionName);
  region->games[3].mended = kMendAll;
  ReadWaitsOfAnyGame();
  EXPECT_EQ(GetMending().bits(), kMendStart);
  EXPECT_EQ(ReadBits(0), 0u);
  EXPECT_EQ(ReadBits(3), kMendAll);
  ++region->header.minor_ver;
  ReadMending(kMaxGames);
  ReadWaitsOfAnyGame();
  EXPECT_EQ(GetMending().bits(), 0u) << "of another version";
}

}  // namespace
}  // namespace moru_vyr::lsp
