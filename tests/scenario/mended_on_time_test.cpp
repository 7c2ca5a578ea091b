// The probes of a burst leave when they are due, for a client that asks for throughput: a burst
// takes as long as it is set to, and not as long as the timer's steps make it.
#include "abi/mending_formats.h"
#include "tests/scenario/udp_world.h"
//
#include "port/shared/faults.h"
#include "tests/support/link_judge.h"

namespace {

using namespace udp_test;  // NOLINT
using moru_vyr::lsp::kMendThroughput;

constexpr int kProbes = 20;  // where nothing is set
constexpr int kIntervalMs = 50;
constexpr int kBurstMs = (kProbes - 1) * kIntervalMs;  // from the first probe to the last

// A link so long that it looks dead in its first slot, and so gets a burst.
class Bursts : public UdpWorld {
 protected:
  explicit Bursts(common::u32 mended = 0) : UdpWorld(mended) {
    Configures([](moru_vyr::lsp::AccConfigRecord* record) {
      record->link_switch_mask = 3;
      common::SetFieldText(record->list_text, "7");
      record->switch_open = 1;
      record->max_link_except_rep_num = 20;
      record->max_high_freq_test_count = 100;  // no watch period
    });
    sim::LinkOptions link;
    link.delay = 72ms;
    world.SetLink(world.home().host, a_host, link);
    Starts(0);
  }

  // The game plays for three seconds. When each probe of a burst has left, in milliseconds.
  std::vector<int> ProbeTimes() {
    const SOCKET s = Udp();
    std::vector<int> times;
    for (int ms = 0; ms < 3000; ++ms) {
      if (ms % 50 == 0) Sends(s, "tick");
      RunFor(1ms);
      const int sent = test::CountOf("StepSpeedTest, high_freq_test_counter", log_text());
      while (static_cast<int>(times.size()) < sent) times.push_back(ms);
    }
    closesocket(s);
    return times;
  }
};

class MendedBursts : public Bursts {
 protected:
  MendedBursts() : Bursts(kMendThroughput) {}
};

SCENARIO_F(Bursts, WaitForTheTimer) {
  const std::vector<int> times = ProbeTimes();
  ASSERT_EQ(times.size(), kProbes + 0u);
  EXPECT_GT(times.back() - times.front(), kBurstMs * 5 / 4);
}

SCENARIO_F(MendedBursts, TakeAsLongAsTheyAreSetTo) {
  const std::vector<int> times = ProbeTimes();
  ASSERT_EQ(times.size(), kProbes + 0u);
  EXPECT_NEAR(times.back() - times.front(), kBurstMs, 2);
  for (int i = 1; i < kProbes; ++i) EXPECT_NEAR(times[i] - times[i - 1], kIntervalMs, 2) << i;
}

// The timer itself keeps its pace: what is asked for is one update, and only while a burst runs.
SCENARIO_F(MendedBursts, LeaveTheTimerAloneAfterwards) {
  ASSERT_FALSE(ProbeTimes().empty());
  RunFor(1s);
  port::CountCalls();
  RunFor(1s);
  const unsigned nodes = 2 * 50;  // each has a loop of its own, which looks after 20 ms as well
  EXPECT_GE(port::CallCount("WSPSelect"), 40u);
  EXPECT_LE(port::CallCount("WSPSelect"), nodes + 51u);
}

}  // namespace
