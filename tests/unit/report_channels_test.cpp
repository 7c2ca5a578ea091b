// The report regions as the client program finds them.
#include "tracker/report_channels.h"

#include <gtest/gtest.h>

#include "common/shared_mem_obj.h"

namespace moru_vyr::lsp {
namespace {

class ReportChannels : public testing::TestWithParam<ReportChannel> {};

// The client program opens the region by its name and compares the header with the size it knows.
TEST_P(ReportChannels, MakesARegionThatTheClientProgramAccepts) {
  const ReportChannel& channel = GetParam();
  common::Shared_mem_obj library(channel.mapping_name, channel.region_size, channel.mutex_name,
                                 false);
  common::Shared_mem_obj client(channel.mapping_name, channel.region_size, channel.mutex_name,
                                false);
  EXPECT_NE(client.Open(common::kOpenForReading, true), nullptr);
  client.Close();
}

INSTANTIATE_TEST_SUITE_P(All, ReportChannels,
                         testing::Values(kDecisionChannel, kCommunicationChannel, kLogPathChannel,
                                         kLoadedChannel, kNegotiationResultChannel,
                                         kRealNegotiationChannel, kRecoverySwitchChannel),
                         [](const auto& test) {
                           return "Size" + std::to_string(test.param.region_size);
                         });

}  // namespace
}  // namespace moru_vyr::lsp
