// The same packets go to LostCalc and to its model: lost, duplicated, reordered, renumbered, over
// clocks that jump and that start again. Both must agree after every single one.
//
// A failure prints its seed; with VYR_SEED set to it, only that stream is run. VYR_STEPS is the
// total number of steps.
#include "tests/model/quality_lost_model.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "quality/lost_calc.h"

namespace test {
namespace {

using moru_vyr::lsp::LostCalc;
using moru_vyr::lsp::u16;
using moru_vyr::lsp::u8;

#ifdef NDEBUG
constexpr u32 kSteps = 1'000'000;
#else
constexpr u32 kSteps = 200'000;  // unoptimised and sanitized
#endif
constexpr u32 kStepsPerStream = 2000;

u32 FromEnvironment(const char* name, u32 otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr ? static_cast<u32>(std::strtoul(text, nullptr, 10)) : otherwise;
}

// A sender, a bad network and a clock, whose packets go to a calculator and to its model.
class Stream {
 public:
  explicit Stream(u32 seed) : random_(seed) {
    send_tracked_ = Chance(50);
    loss_ = Below(2) == 0 ? 0 : Below(60);
    duplicates_ = Below(20);
    delayed_ = Below(30);
    packets_per_tick_ = 1 + Below(40);
    switch (Below(4)) {
      case 0:
        seq_ = Below(3);
        break;
      case 1:
        seq_ = 0u - Below(500);  // about to wrap
        break;
      default:
        seq_ = static_cast<u32>(random_());
    }
    if (Chance(25)) now_ = 0u - Below(20'000);
    Init(Chance(50) ? 0 : now_);
  }

  void Step() {
    const u32 what = Below(1000);
    if (what < packets_per_tick_ * 20) {
      Packet();
    } else if (what < 990) {
      Tick();
    } else if (what < 994) {
      seq_ = Chance(50) ? Below(50) : seq_ + Below(100'000);  // starts again, or leaps
    } else if (what < 995) {
      now_ = Chance(50) ? 0 : static_cast<u32>(random_());  // another clock
    } else if (what < 996) {
      Init(Chance(70) ? 0 : now_);
    } else {
      Deliver(static_cast<u32>(random_()));  // a stray number
    }
    Compare();
  }

 private:
  u32 Below(u32 limit) { return static_cast<u32>(random_() % limit); }
  bool Chance(u32 percent) { return Below(100) < percent; }

  void Init(u32 start) {
    unit_ = static_cast<u16>(Chance(10) ? Below(2000) : 11 + Below(500));
    const u32 cycle_size = Chance(20) ? 1 + Below(60) : Chance(50) ? 60 : 1 + Below(8);
    const u32 wait = Chance(20) ? 0 : Below(2u * unit_ + 1);
    const int result = calc_.Init(start, unit_, static_cast<u16>(cycle_size),
                                  static_cast<u16>(wait), 20, send_tracked_);
    EXPECT_EQ(result == 0, model_.Init(start, unit_, cycle_size, wait, send_tracked_));
  }

  void Packet() {
    ++seq_;
    calc_.AddOneSend(seq_);
    model_.Send(seq_);
    if (Chance(loss_)) return;
    if (Chance(delayed_)) {
      under_way_.push_back(seq_);
      return;
    }
    Deliver(seq_);
    if (Chance(duplicates_)) Deliver(seq_);
  }

  void Tick() {
    now_ += Chance(3) ? Below(10u * unit_ + 1) : Below(unit_ / 4u + 2);
    EXPECT_EQ(calc_.Update(now_), model_.Update(now_));
    while (!under_way_.empty() && Chance(40)) {
      const std::size_t which = Below(static_cast<u32>(under_way_.size()));
      Deliver(under_way_[which]);
      if (!Chance(duplicates_)) {
        under_way_.erase(under_way_.begin() + static_cast<std::ptrdiff_t>(which));
      }
    }
  }

  void Deliver(u32 seq) {
    calc_.AddOneRecv(seq);
    model_.Recv(seq);
  }

  void Compare() {
    const LostModel::Lost last{calc_.last_lost(), calc_.need_recv_pkg(), calc_.real_recv_pkgs()};
    EXPECT_EQ(last.lost, model_.last().lost);
    EXPECT_EQ(last.need, model_.last().need);
    EXPECT_EQ(last.real, model_.last().real);
    const u32 cycles = Chance(20) ? Below(70) : Below(8);
    const bool include_current = Chance(50);
    LostModel::Lost got;
    got.lost = calc_.GetCurLost(static_cast<u16>(cycles), &got.need, &got.real, include_current);
    const LostModel::Lost want = model_.Get(cycles, include_current);
    EXPECT_EQ(got.lost, want.lost) << cycles << (include_current ? " with" : " without");
    EXPECT_EQ(got.need, want.need);
    EXPECT_EQ(got.real, want.real);
    EXPECT_EQ(calc_.lost_accum_count(), model_.results().size());
    for (; summed_ < model_.results().size(); ++summed_) sum_ += model_.results()[summed_];
    EXPECT_EQ(calc_.lost_accum(), sum_);
  }

  std::mt19937 random_;
  LostCalc calc_;
  LostModel model_;
  bool send_tracked_ = false;
  u16 unit_ = 0;
  u32 loss_ = 0, duplicates_ = 0, delayed_ = 0, packets_per_tick_ = 0;
  u32 seq_ = 0;
  u32 now_ = 0;
  std::vector<u32> under_way_;
  std::size_t summed_ = 0;
  u32 sum_ = 0;
};

TEST(LostModel, AgreesAfterEveryStep) {
  const u32 streams = FromEnvironment("VYR_STEPS", kSteps) / kStepsPerStream;
  const u32 only = FromEnvironment("VYR_SEED", 0);
  for (u32 seed = only != 0 ? only : 1; seed <= (only != 0 ? only : streams); ++seed) {
    Stream stream(seed);
    for (u32 step = 0; step < kStepsPerStream; ++step) {
      stream.Step();
      ASSERT_FALSE(HasFailure()) << "seed " << seed << ", step " << step;
    }
  }
}

}  // namespace
}  // namespace test
