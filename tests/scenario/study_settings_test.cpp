// The rows of the study set what they say. "unset" is the baseline for the others: if it set a
// threshold, the effect would be attributed to the library.
#include <gtest/gtest.h>

#include <cstring>

#include "common/text.h"
#include "tests/study/conditions.h"

namespace {

using moru_vyr::lsp::AccConfigRecord;
using study::AllSettings;
using study::Find;

AccConfigRecord With(const char* settings) {
  AccConfigRecord config;
  Find(AllSettings(), settings)->apply(&config);
  return config;
}

bool Same(const AccConfigRecord& one, const AccConfigRecord& other) {
  return std::memcmp(&one, &other, sizeof one) == 0;
}

TEST(StudySettings, UnsetOpensTheGatesAndSetsNothingElse) {
  AccConfigRecord config = With("unset");
  for (const unsigned gate :
       {unsigned{config.link_switch_mask}, unsigned{config.switch_open},
        unsigned{config.game_link_switch_open}, unsigned{config.max_link_except_rep_num},
        unsigned{config.max_link_switch_count}}) {
    EXPECT_NE(gate, 0u);
  }
  EXPECT_NE(common::FieldText(config.list_text), "");
  config.link_switch_mask = config.switch_open = config.game_link_switch_open = 0;
  config.max_link_except_rep_num = config.max_link_switch_count = 0;
  std::memset(config.list_text, 0, sizeof config.list_text);
  EXPECT_TRUE(Same(config, AccConfigRecord()));
}

TEST(StudySettings, LeastSetsTheLossOfTheTrialAndNoWatchTheBursts) {
  AccConfigRecord config = With("unset");
  config.switching_max_real_route_lost = 60;
  EXPECT_TRUE(Same(config, With("least")));
  config.max_high_freq_test_count = 100;
  config.ignore_high_freq_test_time = 2;
  EXPECT_TRUE(Same(config, With("no-watch")));
}

}  // namespace
