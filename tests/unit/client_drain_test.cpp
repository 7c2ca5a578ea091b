// Taking reports out of their slots: each once, and no slot released before its report is written.
#include "client/watch/report_drain.h"

#include <gtest/gtest.h>

#include "client/watch/report_regions.h"
#include "common/named_mutex.h"
#include "tests/support/threads.h"
#include "tests/unit/client_reports.h"

namespace {

using client::ReportDrain;
using client::ReportRegions;
using test::Channel;
using namespace moru_vyr::lsp;

constexpr unsigned kWaitMs = 1000;

NegRetRecord Failure(int32_t result) {
  NegRetRecord record;
  record.nego_result = result;
  return record;
}

TEST(ClientReportRegions, AllSevenAreMadeAndGoWithTheirServer) {
  {
    ReportRegions regions;
    EXPECT_EQ(regions.Make(kWaitMs), "");
    for (int i = 0; i < client::kReportKindCount; ++i) {
      const auto& channel = *client::ChannelOf(static_cast<client::ReportKind>(i)).channel;
      EXPECT_TRUE(common::Shared_mem_obj::Exists(channel.mapping_name)) << channel.mapping_name;
    }
  }
  EXPECT_FALSE(common::Shared_mem_obj::Exists(kDecisionChannel.mapping_name));
}

TEST(ClientReportRegions, ReportsThatWaitFromBeforeStay) {
  Channel channel(client::kNegotiationResultReport);
  channel.Put(2, Failure(202));
  ReportRegions regions;
  EXPECT_EQ(regions.Make(kWaitMs), "");
  EXPECT_FALSE(channel.IsFree(2));
}

TEST(ClientReportRegions, ARegionOfAnotherVersionIsNamedAndTheOthersAreMade) {
  Channel channel(client::kDecisionReport);
  channel.SetMinorVersion(37);
  ReportRegions regions;
  EXPECT_NE(regions.Make(kWaitMs).find(kDecisionChannel.mapping_name), std::string::npos);
  EXPECT_TRUE(common::Shared_mem_obj::Exists(kRecoverySwitchChannel.mapping_name));
}

TEST(ClientReportDrain, NoRegionIsNoReportAndMakesNone) {
  ReportDrain drain;
  EXPECT_TRUE(drain.Take(kWaitMs).empty());
  EXPECT_FALSE(drain.AnyRegion());
  EXPECT_EQ(drain.trouble(), "");
  EXPECT_FALSE(common::Shared_mem_obj::Exists(kDecisionChannel.mapping_name));
}

TEST(ClientReportDrain, ASlotIsFreedByGivingBackAndNotByTaking) {
  Channel channel(client::kNegotiationResultReport);
  channel.Put(0, Failure(202));
  channel.Put(15, Failure(207));
  ReportDrain drain;
  const auto reports = drain.Take(kWaitMs);
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].As<NegRetRecord>().nego_result, 202);
  EXPECT_EQ(reports[1].As<NegRetRecord>().nego_result, 207);
  EXPECT_EQ(reports[1].slot, 15u);
  EXPECT_FALSE(channel.IsFree(0));
  drain.GiveBack(reports, kWaitMs);
  EXPECT_TRUE(channel.IsFree(0));
  EXPECT_TRUE(channel.IsFree(15));
  EXPECT_TRUE(drain.Take(kWaitMs).empty());
}

// A watcher that dies between the two leaves the report to the next one.
TEST(ClientReportDrain, WhatWasTakenAndNotGivenBackIsThereForAnother) {
  Channel channel(client::kNegotiationResultReport);
  channel.Put(0, Failure(202));
  { EXPECT_EQ(ReportDrain().Take(kWaitMs).size(), 1u); }
  EXPECT_EQ(ReportDrain().Take(kWaitMs).size(), 1u);
}

TEST(ClientReportDrain, AReportThatTookTheSlotMeanwhileIsNotFreed) {
  Channel channel(client::kNegotiationResultReport);
  channel.Put(0, Failure(202));
  ReportDrain drain;
  const auto reports = drain.Take(kWaitMs);
  channel.Put(0, Failure(203));  // someone else freed it, and the library used it again
  drain.GiveBack(reports, kWaitMs);
  EXPECT_FALSE(channel.IsFree(0));
  EXPECT_EQ(drain.Take(kWaitMs).size(), 1u);
}

TEST(ClientReportDrain, AnyFirstByteButZeroIsAUsedSlot) {
  Channel channel(client::kLogPathReport);
  LogPathRecord record;
  record.used = 0xff;
  channel.PutBytes(4, &record);
  ReportDrain drain;
  const auto reports = drain.Take(kWaitMs);
  ASSERT_EQ(reports.size(), 1u);
  drain.GiveBack(reports, kWaitMs);
  EXPECT_TRUE(channel.IsFree(4));
}

TEST(ClientReportDrain, EveryChannelAtItsLastSlot) {
  std::vector<std::unique_ptr<Channel>> channels;
  for (int i = 0; i < client::kReportKindCount; ++i) {
    const auto kind = static_cast<client::ReportKind>(i);
    channels.push_back(std::make_unique<Channel>(kind));
    std::vector<std::byte> slot(client::ChannelOf(kind).shape.size, std::byte{1});
    channels.back()->PutBytes(client::ChannelOf(kind).channel->slot_count - 1, slot.data());
  }
  ReportDrain drain;
  const auto reports = drain.Take(kWaitMs);
  ASSERT_EQ(reports.size(), size_t{client::kReportKindCount});
  drain.GiveBack(reports, kWaitMs);
  for (int i = 0; i < client::kReportKindCount; ++i) {
    const auto kind = static_cast<client::ReportKind>(i);
    EXPECT_EQ(reports[static_cast<size_t>(i)].kind, kind);
    EXPECT_TRUE(
        channels[static_cast<size_t>(i)]->IsFree(client::ChannelOf(kind).channel->slot_count - 1));
  }
}

// The library's own thread holds the mutex for one copy; a dead process may hold it for good.
TEST(ClientReportDrain, AMutexThatIsHeldCostsItsChannelAloneAndOnlyForNow) {
  Channel failures(client::kNegotiationResultReport);
  failures.Put(0, Failure(202));
  Channel paths(client::kLogPathReport);
  paths.Put(0, LogPathRecord{});
  ReportDrain drain;
  common::NamedMutex held(kNegotiationResultChannel.mutex_name);
  held.lock();
  test::RunThread([&] {
    const auto reports = drain.Take(50);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].kind, client::kLogPathReport);
  });
  EXPECT_NE(drain.trouble().find(kNegotiationResultChannel.mapping_name), std::string::npos);
  held.unlock();
  EXPECT_EQ(drain.Take(kWaitMs).size(), 2u);
  EXPECT_EQ(drain.trouble(), "");
}

// Written out, but the slot could not be freed: it is freed later, and not reported twice.
TEST(ClientReportDrain, ASlotThatCouldNotBeFreedIsFreedLaterAndNotTakenTwice) {
  Channel channel(client::kNegotiationResultReport);
  channel.Put(0, Failure(202));
  ReportDrain drain;
  const auto reports = drain.Take(kWaitMs);
  common::NamedMutex held(kNegotiationResultChannel.mutex_name);
  held.lock();
  test::RunThread([&] { drain.GiveBack(reports, 50); });
  EXPECT_FALSE(channel.IsFree(0));
  held.unlock();
  EXPECT_TRUE(drain.Take(kWaitMs).empty());
  drain.GiveBack({}, kWaitMs);
  EXPECT_TRUE(channel.IsFree(0));
}

TEST(ClientReportDrain, ARegionOfAnotherVersionIsTroubleAndIsReadOnceItIsRight) {
  Channel channel(client::kNegotiationResultReport);
  channel.Put(0, Failure(202));
  channel.SetMinorVersion(37);
  ReportDrain drain;
  EXPECT_TRUE(drain.Take(kWaitMs).empty());
  EXPECT_NE(drain.trouble(), "");
  EXPECT_FALSE(channel.IsFree(0));
  channel.SetMinorVersion(36);
  EXPECT_EQ(drain.Take(kWaitMs).size(), 1u);
}

// The regions end with the client program that made them; reports that games still write must not
// be lost.
TEST(ClientReportDrain, ReportsOutliveTheClientThatMadeTheRegion) {
  auto channel = std::make_unique<Channel>(client::kNegotiationResultReport);
  ReportDrain drain;
  EXPECT_TRUE(drain.Take(kWaitMs).empty());
  channel->Put(0, Failure(202));
  channel.reset();
  EXPECT_EQ(drain.Take(kWaitMs).size(), 1u);
}

}  // namespace
