// The client program's side of the seven report channels: creates the regions with all slots free,
// as the client program does, and reads their content.
#pragma once
#include <cstring>
#include <string>
#include <vector>

#include "abi/report_records.h"
#include "tests/support/route_fixture.h"
#include "tracker/tracker.h"

namespace test {

template <typename Region>
int UsedSlots(ClientRegion<Region>& region) {
  int used = 0;
  for (const auto& slot : region->slots) used += slot.used;
  return used;
}

// Ends the process's own Tracker. Other tests have used it, and while its thread runs it writes
// into these regions, too. Call it at the beginning of a suite, before there are reports.
inline void EndTheTrackerOfTheProcess() { moru_vyr::lsp::GetTracker().UnInit(); }

struct ReportClient {
  ClientRegion<moru_vyr::lsp::DecisionRegion> decisions{
      moru_vyr::lsp::kDecisionChannel.mapping_name};
  ClientRegion<moru_vyr::lsp::CommunicationRegion> traffic{
      moru_vyr::lsp::kCommunicationChannel.mapping_name};
  ClientRegion<moru_vyr::lsp::LogPathRegion> log_paths{moru_vyr::lsp::kLogPathChannel.mapping_name};
  ClientRegion<moru_vyr::lsp::LoadedRegion> loaded{moru_vyr::lsp::kLoadedChannel.mapping_name};
  ClientRegion<moru_vyr::lsp::NegotiationResultRegion> failures{
      moru_vyr::lsp::kNegotiationResultChannel.mapping_name};
  ClientRegion<moru_vyr::lsp::RealNegotiationRegion> negotiations{
      moru_vyr::lsp::kRealNegotiationChannel.mapping_name};
  ClientRegion<moru_vyr::lsp::RecoverySwitchRegion> switches{
      moru_vyr::lsp::kRecoverySwitchChannel.mapping_name};
};

}  // namespace test
