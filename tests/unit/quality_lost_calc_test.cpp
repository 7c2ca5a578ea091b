// Losses from sequence numbers: what is expected, what counts, and when it is evaluated. A wrong
// percentage moves a healthy flow to another node, or leaves one on a dead node.
#include "quality/lost_calc.h"

#include <gtest/gtest.h>

namespace moru_vyr::lsp {
namespace {

constexpr bool kSends = true;      // the sender's numbers make the range
constexpr bool kArrivals = false;  // the arrivals do
constexpr u16 kUnit = 1000;
constexpr u16 kWait = 200;

struct Lost {
  int lost;
  u32 need;
  u32 real;
  bool operator==(const Lost&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Lost& l) {
  return out << l.lost << " % (" << l.real << " of " << l.need << ")";
}

// A calculator with a clock that ends slots.
class Calc : public LostCalc {
 public:
  explicit Calc(bool send_tracked, u16 cycle_size = 5) {
    EXPECT_EQ(Init(0, kUnit, cycle_size, kWait, 20, send_tracked), 0);
  }
  void Send(u32 from, u32 to) {
    for (u32 seq = from; seq <= to; ++seq) AddOneSend(seq);
  }
  void Recv(u32 from, u32 to) {
    for (u32 seq = from; seq <= to; ++seq) AddOneRecv(seq);
  }
  void OpenGrace() {
    now_ += kUnit;
    EXPECT_FALSE(Update(now_));
  }
  void EndGrace() {
    now_ += kWait;
    EXPECT_TRUE(Update(now_));
  }
  void CloseSlot() {
    OpenGrace();
    EndGrace();
  }
  Lost Get(u16 cycles, bool include_current) const {
    u32 need = 7777, real = 7777;
    const u8 lost = GetCurLost(cycles, &need, &real, include_current);
    return {lost, need, real};
  }

 private:
  u32 now_ = 0;
};

TEST(LostCalc, TakesUnitsFromElevenMillisecondsAndUpToSixtySlots) {
  struct Case {
    u16 unit_ms, cycle_size;
    int result;
  };
  for (const auto& [unit_ms, cycle_size, result] : {Case{10, 5, -1},
                                                    {11, 5, 0},
                                                    {0, 5, -1},
                                                    {1000, 0, -1},
                                                    {1000, 1, 0},
                                                    {1000, 60, 0},
                                                    {1000, 61, -1},
                                                    {65535, 65535, -1}}) {
    LostCalc calc;
    EXPECT_EQ(calc.Init(0, unit_ms, cycle_size, 50, 20, kSends), result)
        << unit_ms << " " << cycle_size;
  }
}

TEST(LostCalc, UsesWhatItRefused) {
  LostCalc calc;
  EXPECT_EQ(calc.Init(100, 10, 5, 0, 20, kSends), -1);
  EXPECT_FALSE(calc.Update(109));
  EXPECT_FALSE(calc.Update(110));  // opens the grace period, which takes no time
  EXPECT_TRUE(calc.Update(110));
}

TEST(LostCalc, KnowsNothingAtFirst) {
  LostCalc calc;
  EXPECT_EQ(calc.last_lost(), 103);
  EXPECT_EQ(calc.min_pkgs(), 20u);
  EXPECT_EQ(calc.need_recv_pkg(), 0u);
  EXPECT_EQ(calc.real_recv_pkgs(), 0u);
  EXPECT_EQ(Calc(kSends).Get(5, false), (Lost{102, 0, 0}));
  EXPECT_EQ(Calc(kSends).Get(0, true), (Lost{102, 0, 0}));
  EXPECT_EQ(Calc(kArrivals).Get(5, false), (Lost{102, 0, 0}));
}

TEST(LostCalc, HasNoLossToTellBeforeASlotHasClosed) {
  Calc calc(kSends);
  calc.Send(0, 10);
  EXPECT_EQ(calc.Get(5, false), (Lost{102, 0, 0}));
  EXPECT_EQ(calc.Get(5, true), (Lost{100, 10, 0}));
  calc.OpenGrace();
  EXPECT_EQ(calc.Get(5, false), (Lost{102, 0, 0}));
  calc.EndGrace();
  EXPECT_EQ(calc.Get(5, false), (Lost{100, 10, 0}));
}

TEST(LostCalc, AcceptsNullPointersForTheCounts) {
  Calc calc(kSends);
  calc.Send(0, 4);
  calc.Recv(1, 2);
  EXPECT_EQ(calc.GetCurLost(5, nullptr, nullptr, true), 50);
  EXPECT_EQ(calc.GetCurLost(5, nullptr, nullptr, false), 102);
}

TEST(LostCalc, TruncatesThePercentage) {
  struct Case {
    u32 expected, received;
    int lost;
  };
  for (const auto& [expected, received, lost] :
       {Case{100, 90, 10}, {3, 2, 33}, {3, 1, 66}, {200, 199, 0}, {7, 0, 100}, {7, 7, 0}}) {
    Calc calc(kSends);
    calc.Send(0, expected);  // the first is the base of the range
    calc.Recv(1, received);
    calc.CloseSlot();
    EXPECT_EQ(calc.Get(5, false), (Lost{lost, expected, received}));
    EXPECT_EQ(calc.last_lost(), lost);
    EXPECT_EQ(calc.need_recv_pkg(), expected);
    EXPECT_EQ(calc.real_recv_pkgs(), received);
  }
}

// Kept: 32 bits of product. Such a range is fifty million packets wide, so only a stray number
// makes it.
TEST(LostCalc, ReckonsInThirtyTwoBits) {
  Calc calc(kSends);
  calc.AddOneSend(0);
  calc.AddOneSend(50'000'000);
  EXPECT_EQ(calc.Get(1, true), (Lost{14, 50'000'000, 0}));
}

TEST(LostCalc, TheFirstArrivalIsABaseAndNotCounted) {
  Calc calc(kArrivals);
  calc.AddOneRecv(41);
  EXPECT_EQ(calc.Get(5, true), (Lost{102, 0, 0}));
  calc.CloseSlot();
  EXPECT_EQ(calc.last_lost(), 102);
  calc.AddOneRecv(42);
  EXPECT_EQ(calc.Get(5, true), (Lost{0, 1, 1}));
}

TEST(LostCalc, ArrivalsMakeTheRangeAndFillIt) {
  Calc calc(kArrivals);
  calc.AddOneRecv(100);
  calc.AddOneRecv(105);
  EXPECT_EQ(calc.Get(5, true), (Lost{80, 5, 1}));
  calc.AddOneRecv(103);
  EXPECT_EQ(calc.Get(5, true), (Lost{60, 5, 2}));
  calc.AddOneRecv(100);  // the base, and numbers below it, do not count
  calc.AddOneRecv(99);
  EXPECT_EQ(calc.Get(5, true), (Lost{60, 5, 2}));
}

// The highest number: its packet has been counted where arrivals make the range, and has not where
// sends do. Others are not told from their duplicates.
TEST(LostCalc, CountsDuplicatesWithinARangeButNotOfTheHighestArrival) {
  Calc arrivals(kArrivals);
  arrivals.Recv(0, 4);
  EXPECT_EQ(arrivals.Get(5, true), (Lost{0, 4, 4}));
  arrivals.AddOneRecv(4);
  EXPECT_EQ(arrivals.Get(5, true), (Lost{0, 4, 4}));
  arrivals.AddOneRecv(2);
  EXPECT_EQ(arrivals.Get(5, true), (Lost{0, 4, 5}));

  Calc sends(kSends);
  sends.Send(0, 4);
  sends.Recv(4, 4);
  sends.Recv(4, 4);
  EXPECT_EQ(sends.Get(5, true), (Lost{50, 4, 2}));
  sends.Recv(1, 3);
  EXPECT_EQ(sends.Get(5, true), (Lost{0, 4, 5}));
}

TEST(LostCalc, OnlyTheSendersNumbersMakeTheRangeOfProbes) {
  Calc calc(kSends);
  calc.AddOneRecv(5);  // not started: nothing was expected
  calc.Send(10, 12);
  calc.Recv(10, 14);
  EXPECT_EQ(calc.Get(5, true), (Lost{0, 2, 2}));  // 11 and 12
  calc.AddOneSend(8);                             // below: the range grows downwards
  EXPECT_EQ(calc.Get(5, true), (Lost{50, 4, 2}));
}

TEST(LostCalc, SendsAreNothingToArrivals) {
  Calc calc(kArrivals);
  calc.Send(0, 50);
  calc.AddOneRecv(3);
  calc.AddOneRecv(4);
  EXPECT_EQ(calc.Get(5, true), (Lost{0, 1, 1}));
}

TEST(LostCalc, ASlotNeedsTwoCallsToCloseAtAnyTime) {
  Calc calc(kSends);
  EXPECT_FALSE(calc.Update(999));
  EXPECT_FALSE(calc.Update(1'000'000));  // opens the grace period only now
  EXPECT_FALSE(calc.Update(1'000'000 + kWait - 1));
  EXPECT_TRUE(calc.Update(1'000'000 + kWait));
  // The next slot began with the grace period.
  EXPECT_FALSE(calc.Update(1'000'000 + kUnit - 1));
  EXPECT_FALSE(calc.Update(1'000'000 + kUnit));
  EXPECT_TRUE(calc.Update(1'000'000 + kUnit + kWait));
}

TEST(LostCalc, ProbesSentInTheGracePeriodBelongToTheNextSlot) {
  Calc calc(kSends, 1);
  calc.Send(0, 10);
  calc.Recv(1, 5);
  calc.OpenGrace();
  calc.Send(11, 14);
  calc.Recv(6, 8);    // late, of the slot that ends
  calc.Recv(11, 12);  // of the next
  calc.EndGrace();
  EXPECT_EQ(calc.last_lost(), 20);
  EXPECT_EQ(calc.Get(1, true), (Lost{50, 4, 2}));
  calc.AddOneRecv(9);  // very late: the closed slot still hears of it
  EXPECT_EQ(calc.Get(1, false), (Lost{10, 10, 9}));
}

TEST(LostCalc, ArrivalsInTheGracePeriodBelongToTheNextSlotIfTheyAreNew) {
  Calc calc(kArrivals, 1);
  calc.AddOneRecv(0);
  calc.AddOneRecv(10);
  calc.OpenGrace();
  calc.AddOneRecv(4);   // late
  calc.AddOneRecv(12);  // new
  calc.AddOneRecv(11);  // new, overtaken: the range stays
  calc.AddOneRecv(10);  // the highest of the slot that ends: a duplicate
  calc.EndGrace();
  EXPECT_EQ(calc.last_lost(), 80);
  EXPECT_EQ(calc.Get(1, true), (Lost{0, 2, 2}));
  calc.AddOneRecv(7);
  EXPECT_EQ(calc.Get(1, false), (Lost{70, 10, 3}));
  calc.AddOneRecv(10);
  EXPECT_EQ(calc.Get(1, false), (Lost{70, 10, 3}));
}

// In a grace period three slots are looked at. What lies in the one before the last is found in a
// third look.
TEST(LostCalc, TheGracePeriodCountsLatePacketsOfThePreviousSlot) {
  for (const bool mode : {kSends, kArrivals}) {
    Calc calc(mode, 1);
    calc.Send(0, 10);
    calc.AddOneRecv(mode == kSends ? 10 : 0);
    if (mode == kArrivals) calc.AddOneRecv(10);
    calc.CloseSlot();
    calc.Send(11, 20);
    calc.AddOneRecv(20);
    calc.OpenGrace();
    calc.AddOneRecv(5);
    EXPECT_EQ(calc.Get(1, false), (Lost{80, 10, 2}));
    EXPECT_EQ(calc.Get(1, true), (Lost{90, 10, 1}));
  }
}

TEST(LostCalc, ALatePacketCountsInTheSlotThatClosedLastWhicheverThatIs) {
  Calc calc(kSends);
  calc.Send(0, 0);  // the base
  for (u32 last = 10; last <= 50; last += 10) {
    calc.Send(last - 9, last);
    calc.Recv(last - 9, last - 1);
    calc.CloseSlot();
    EXPECT_EQ(calc.Get(1, false), (Lost{10, 10, 9}));
    calc.Recv(last, last);
    EXPECT_EQ(calc.Get(1, false), (Lost{0, 10, 10})) << last;
  }
}

TEST(LostCalc, HasAsManySlotsAsHaveClosed) {
  Calc calc(kSends);
  for (u16 closed = 0; closed < 3; ++closed) {
    EXPECT_TRUE(calc.HasSlots(closed));
    EXPECT_FALSE(calc.HasSlots(static_cast<u16>(closed + 1)));
    calc.CloseSlot();
  }
}

TEST(LostCalc, LooksBackOverTheLastSlots) {
  Calc calc(kSends, 3);
  calc.AddOneSend(0);
  for (u32 slot = 0; slot < 6; ++slot) {  // ten each, of which as many come as slots are past
    calc.Send(slot * 10 + 1, slot * 10 + 10);
    calc.Recv(slot * 10 + 1, slot * 10 + slot);
    calc.CloseSlot();
  }
  EXPECT_EQ(calc.last_lost(), 60);  // 3, 4 and 5 of 30
  EXPECT_EQ(calc.Get(1, false), (Lost{50, 10, 5}));
  EXPECT_EQ(calc.Get(2, false), (Lost{55, 20, 9}));
  EXPECT_EQ(calc.Get(6, false), (Lost{75, 60, 15}));
  EXPECT_EQ(calc.Get(50, false), (Lost{75, 60, 15}));  // as many as there are
  calc.Send(61, 70);
  EXPECT_EQ(calc.Get(1, true), (Lost{100, 10, 0}));
  EXPECT_EQ(calc.Get(2, true), (Lost{75, 20, 5}));
  EXPECT_EQ(calc.Get(50, true), (Lost{78, 70, 15}));
}

// 100, 95, 90 …: the running window of as many slots as have closed.
TEST(LostCalc, SumsTheResultsOfClosedSlots) {
  Calc calc(kSends, 5);
  calc.CloseSlot();  // nothing was expected: 102, which is not summed
  EXPECT_EQ(calc.lost_accum_count(), 0u);
  calc.Send(0, 10);
  calc.CloseSlot();
  EXPECT_EQ(calc.last_lost(), 100);
  calc.Send(11, 20);
  calc.Recv(11, 20);
  calc.CloseSlot();
  EXPECT_EQ(calc.last_lost(), 50);
  EXPECT_EQ(calc.lost_accum(), 150u);
  EXPECT_EQ(calc.lost_accum_count(), 2u);
}

// A node that restarts, or the link after a switch. Arrivals below everything are not seen, until
// they have passed the old numbers; sends lower the base of their slot and make it very wide.
TEST(LostCalc, NumbersThatStartAgainAreMisunderstood) {
  Calc arrivals(kArrivals, 2);
  arrivals.Recv(1000, 1010);
  arrivals.CloseSlot();
  arrivals.Recv(1, 10);
  EXPECT_EQ(arrivals.Get(1, true), (Lost{102, 0, 0}));
  arrivals.CloseSlot();
  arrivals.CloseSlot();
  EXPECT_EQ(arrivals.last_lost(), 102);
  arrivals.Recv(1011, 1012);
  EXPECT_EQ(arrivals.Get(1, true), (Lost{0, 2, 2}));

  Calc sends(kSends, 2);
  sends.Send(1000, 1010);
  sends.CloseSlot();
  sends.Send(1, 10);
  sends.Recv(1, 10);
  EXPECT_EQ(sends.Get(1, true), (Lost{99, 1009, 9}));
}

// The ring has sixty slots, and a window of sixty wants the one that has been opened since.
TEST(LostCalc, AWindowOfAllSlotsTakesTheOpenOneForItsOldest) {
  Calc calc(kSends, 60);
  calc.AddOneSend(0);
  for (u32 slot = 0; slot < 59; ++slot) {
    calc.Send(slot * 10 + 1, slot * 10 + 10);
    calc.CloseSlot();
  }
  EXPECT_EQ(calc.need_recv_pkg(), 590u);
  calc.Send(591, 600);
  calc.OpenGrace();
  calc.Send(601, 605);
  calc.EndGrace();  // the sixtieth: from the open slot's base, 600, to its own top
  EXPECT_EQ(calc.last_lost(), 102);
  EXPECT_EQ(calc.need_recv_pkg(), 0u);
  // Asked for while nothing is opening, it reads a whole ring.
  EXPECT_EQ(calc.Get(60, true), (Lost{100, 595, 0}));  // without the first ten
  EXPECT_EQ(calc.Get(59, false), (Lost{100, 590, 0}));
  EXPECT_EQ(calc.Get(60, false), (Lost{102, 0, 0}));
  EXPECT_EQ(calc.Get(1000, false), (Lost{102, 0, 0}));
}

// In a grace period two slots are open. The oldest of fifty-nine closed ones has then become the
// newer of these, which begins above all that the window ends with.
TEST(LostCalc, AWindowOfAllSlotsButOneIsBackwardsInAGracePeriod) {
  Calc calc(kSends, 60);
  calc.AddOneSend(0);
  for (u32 slot = 0; slot < 60; ++slot) {
    calc.Send(slot * 10 + 1, slot * 10 + 10);
    calc.CloseSlot();
  }
  EXPECT_EQ(calc.Get(59, false), (Lost{100, 590, 0}));
  calc.Send(601, 610);
  calc.OpenGrace();
  EXPECT_EQ(calc.Get(59, false), (Lost{201, 0, 0}));
  calc.EndGrace();
  EXPECT_EQ(calc.Get(59, false), (Lost{100, 590, 0}));
}

// A window of more slots than there are would go round the ring, and show the last slot alone.
TEST(LostCalc, AWindowThatWasRefusedEndsWithTheRing) {
  for (const u16 refused : {u16{61}, u16{65535}}) {
    Calc calc(kSends, 60);
    EXPECT_EQ(calc.Init(0, kUnit, refused, kWait, 20, kSends), -1);
    calc.AddOneSend(0);
    for (u32 slot = 0; slot < 70; ++slot) {
      calc.Send(slot * 10 + 1, slot * 10 + 10);
      calc.CloseSlot();
    }
    EXPECT_EQ(calc.last_lost(), 102) << refused;
    EXPECT_EQ(calc.need_recv_pkg(), 0u) << refused;
  }
}

TEST(LostCalc, FirstPacketsInAGracePeriodStartTheSlotThatOpens) {
  for (const bool mode : {kSends, kArrivals}) {
    Calc calc(mode);
    calc.CloseSlot();
    calc.CloseSlot();
    calc.OpenGrace();
    calc.Send(50, 60);
    calc.Recv(50, 60);
    EXPECT_EQ(calc.Get(1, true), (Lost{102, 0, 0}));
    calc.EndGrace();  // the only closed slot is one before the start
    EXPECT_EQ(calc.last_lost(), 102);
    EXPECT_EQ(calc.Get(1, true), (Lost{0, 10, 10}));
    calc.CloseSlot();
    EXPECT_EQ(calc.last_lost(), 83);  // kept: the slot before knew no numbers, and so began at 0
    EXPECT_EQ(calc.need_recv_pkg(), 60u);
  }
}

// After a switch the same calculator goes on with a clock that starts at 0 again.
TEST(LostCalc, ASecondInitKeepsTheSlotsAndWaitsForTheOldTime) {
  Calc calc(kSends, 5);
  calc.Send(0, 10);
  calc.Recv(1, 10);
  calc.CloseSlot();  // the running slot began at 1000
  ASSERT_EQ(calc.Init(0, kUnit, 5, kWait, 20, kSends), 0);
  EXPECT_EQ(calc.Get(5, false), (Lost{0, 10, 10}));
  EXPECT_FALSE(calc.Update(1999));
  EXPECT_FALSE(calc.Update(1999 + kWait));  // opens only here: 1000 of the old clock and a unit
  EXPECT_TRUE(calc.Update(1999 + 2 * kWait));
}

}  // namespace
}  // namespace moru_vyr::lsp
