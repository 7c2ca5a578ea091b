// When traffic calls for a burst of probes. At stake: a link in trouble is tested, and a code for
// an unknown loss is not taken for a loss.
#include "quality/link_watch.h"

#include <gtest/gtest.h>

namespace moru_vyr::lsp {
namespace {

RecoverySwitchConfig Limits(u32 short_pkg, u32 short_lost, u32 long_pkg, u32 long_lost,
                            u32 route_lost) {
  RecoverySwitchConfig limits;
  limits.data_link_short_cycle_pkg_ = short_pkg;
  limits.data_link_short_cycle_lost = short_lost;
  limits.data_link_long_cycle_pkg_ = long_pkg;
  limits.data_link_long_cycle_lost_ = long_lost;
  limits.max_real_route_lost_ = route_lost;
  return limits;
}

struct Judged {
  const char* name;
  LinkFigures figures;  // small lost, real; long lost, real; route short real, lost
  LinkTrouble trouble;
};

const Judged kJudged[] = {
    {"healthy", {0, 50, 0, 100, 2, 0}, LinkTrouble::kNone},
    // Dead: nothing arrived although something was expected.
    {"dead", {102, 0, 0, 0, 0, 0}, LinkTrouble::kDead},
    {"dead with a loss", {100, 0, 100, 0, 0, 100}, LinkTrouble::kDead},
    {"quiet, with answers to probes", {102, 0, 102, 0, 1, 0}, LinkTrouble::kNone},
    {"nothing came, and the loss is 101", {101, 0, 0, 0, 0, 0}, LinkTrouble::kNone},
    {"nothing came, and the loss is 103", {103, 0, 0, 0, 0, 0}, LinkTrouble::kNone},
    {"nothing came, and the loss is 201", {201, 0, 0, 0, 0, 0}, LinkTrouble::kNone},
    {"data, without answers to probes", {0, 50, 0, 100, 0, 0}, LinkTrouble::kNone},
    // The short window.
    {"short loss", {15, 10, 0, 100, 2, 0}, LinkTrouble::kShortLoss},
    {"short loss below its limit", {14, 10, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short loss of too few", {15, 9, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short loss of 102 stays as it is", {102, 10, 0, 100, 2, 0}, LinkTrouble::kShortLoss},
    {"short loss of 101 counts as none", {101, 10, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short loss of 103 counts as none", {103, 10, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short loss of 201 counts as none", {201, 10, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short loss of 255 counts as none", {255, 10, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short before long", {15, 10, 5, 20, 2, 0}, LinkTrouble::kShortLoss},
    // The long window.
    {"long loss", {0, 50, 5, 20, 2, 0}, LinkTrouble::kLongLoss},
    {"long loss below its limit", {0, 50, 4, 20, 2, 0}, LinkTrouble::kNone},
    {"long loss of too few", {0, 50, 5, 19, 2, 0}, LinkTrouble::kNone},
    {"long loss of 100", {0, 50, 100, 20, 2, 0}, LinkTrouble::kLongLoss},
    {"long loss of 101 counts as none", {0, 50, 101, 20, 2, 0}, LinkTrouble::kNone},
    {"long loss of 102 counts as none", {0, 50, 102, 20, 2, 0}, LinkTrouble::kNone},
    {"long loss of 201 counts as none", {0, 50, 201, 20, 2, 0}, LinkTrouble::kNone},
    {"an unknown short loss leaves the long one", {201, 0, 5, 20, 0, 0}, LinkTrouble::kLongLoss},
    // Probes, if the game sends little.
    {"route loss", {0, 5, 0, 19, 2, 30}, LinkTrouble::kRouteLoss},
    {"route loss below its limit", {0, 5, 0, 19, 2, 29}, LinkTrouble::kNone},
    {"route loss beside enough data", {0, 50, 0, 20, 2, 30}, LinkTrouble::kNone},
    {"route loss of 100", {0, 5, 0, 19, 2, 100}, LinkTrouble::kRouteLoss},
    {"route loss of 101", {0, 5, 0, 19, 2, 101}, LinkTrouble::kNone},
    {"route loss of 102", {0, 5, 0, 19, 2, 102}, LinkTrouble::kNone},
    {"route loss of 201", {0, 5, 0, 19, 2, 201}, LinkTrouble::kNone},
    {"all unknown", {201, 0, 201, 0, 0, 201}, LinkTrouble::kNone},
};

TEST(LinkTrouble, IsTheFirstThatHolds) {
  for (const Judged& one : kJudged) {
    EXPECT_EQ(FindTrouble(one.figures, Limits(10, 15, 20, 5, 30)), one.trouble) << one.name;
  }
}

// Limits of 0 would make any code a loss.
TEST(LinkTrouble, ACodeIsNotALossForAnyLimit) {
  EXPECT_EQ(FindTrouble({201, 7, 201, 7, 2, 201}, Limits(0, 1, 0, 1, 1)), LinkTrouble::kNone);
}

}  // namespace
}  // namespace moru_vyr::lsp
