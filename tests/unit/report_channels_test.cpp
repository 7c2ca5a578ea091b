// The report channels as other client programs know them: by these texts and numbers alone.
#include "abi/report_channels.h"

#include <gtest/gtest.h>

namespace moru_vyr::lsp {
namespace {

TEST(ReportChannels, HaveTheAgreedNamesAndSizes) {
  const struct {
    const ReportChannel& channel;
    const char* mapping_name;
    const char* mutex_name;
    u32 region_size, slot_count, slot_size;
  } rows[] = {
      {kDecisionChannel, "vyr_qos_acce_decision_share_mem", "vyr_qos_acce_decision_named_mutex",
       121840, 108, 1128},
      {kCommunicationChannel, "vyr_comm_info_shared_mem", "vyr_comm_info_named_mutex", 31504, 32,
       984},
      {kLogPathChannel, "vyr_log_file_path_shared_mem", "vyr_log_file_path_named_mutex", 4496, 16,
       280},
      {kLoadedChannel, "vyr_lsp_loaded_info_shared_mem", "vyr_lsp_loaded_info_named_mutex", 35856,
       128, 280},
      {kNegotiationResultChannel, "vyr_neg_ret_shared_mem", "vyr_neg_ret_named_mutex", 2960, 16,
       184},
      {kRealNegotiationChannel, "vyr_nego_real_ip_shared_mem", "vyr_nego_real_ip_named_mutex",
       16432, 108, 152},
      {kRecoverySwitchChannel, "vyr_recovery_switch_shared_mem", "vyr_recovery_switch_named_mutex",
       9360, 16, 584},
  };
  for (const auto& row : rows) {
    EXPECT_STREQ(row.channel.mapping_name, row.mapping_name);
    EXPECT_STREQ(row.channel.mutex_name, row.mutex_name);
    EXPECT_EQ(row.channel.region_size, row.region_size) << row.mapping_name;
    EXPECT_EQ(row.channel.slot_count, row.slot_count) << row.mapping_name;
    EXPECT_EQ(row.channel.slot_size, row.slot_size) << row.mapping_name;
  }
}

}  // namespace
}  // namespace moru_vyr::lsp
