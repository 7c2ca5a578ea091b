// How many datagrams a pass reads, by how many the passes before it have found.
#include "udp/read_pace.h"

#include <gtest/gtest.h>

#include "tests/support/end_worker.h"

namespace moru_vyr::lsp {
namespace {

class ReadPaceTest : public testing::Test {
 protected:
  explicit ReadPaceTest(u32 mended = kMendThroughput) {
    test::EndWorker();
    ReplaceMending(Mending({.mended = mended}));
  }
  ~ReadPaceTest() override { ReplaceMending(Mending()); }

  // A pass over a socket with so many datagrams. Whether it has read to the end.
  static bool Pass(ReadPace* pace, u32 datagrams) {
    for (u32 count = 1; count <= datagrams; ++count) {
      if (pace->IsEnough(count)) return false;
    }
    pace->Note(datagrams);
    return true;
  }
  static int WholePasses(ReadPace* pace, int passes) {
    int whole = 0;
    for (int i = 0; i < passes; ++i) whole += Pass(pace, 1) ? 1 : 0;
    return whole;
  }
};

TEST_F(ReadPaceTest, SinglesAreReadOnceAndNowAndThenToTheEnd) {
  ReadPace pace;
  EXPECT_EQ(WholePasses(&pace, 4), 4);
  EXPECT_FALSE(pace.MayHaveLeft());
  EXPECT_EQ(WholePasses(&pace, 15), 0);
  EXPECT_TRUE(pace.MayHaveLeft());
  EXPECT_EQ(WholePasses(&pace, 16), 1);
}

TEST_F(ReadPaceTest, TwoAtOnceAreReadToTheEndAndEndThat) {
  ReadPace pace;
  WholePasses(&pace, 4 + 15);
  EXPECT_TRUE(Pass(&pace, 2));
  EXPECT_FALSE(pace.MayHaveLeft());
  EXPECT_EQ(WholePasses(&pace, 4), 4);
  EXPECT_FALSE(Pass(&pace, 1));
}

TEST_F(ReadPaceTest, APassThatFindsNothingSaysNothing) {
  ReadPace pace;
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(Pass(&pace, 0));
    EXPECT_TRUE(Pass(&pace, 1));
  }
  EXPECT_FALSE(Pass(&pace, 1));
}

class UnmendedReadPace : public ReadPaceTest {
 protected:
  UnmendedReadPace() : ReadPaceTest(kMendAll) {}
};

TEST_F(UnmendedReadPace, EachPassReadsToTheEnd) {
  ReadPace pace;
  EXPECT_EQ(WholePasses(&pace, 100), 100);
  EXPECT_FALSE(pace.MayHaveLeft());
}

}  // namespace
}  // namespace moru_vyr::lsp
