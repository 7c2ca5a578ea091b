// Gives what is reported of a flow to the node that it belongs to.
#pragma once

#include <string>

#include "abi/report_records.h"
#include "client/watch/flow.h"
#include "client/watch/report.h"

namespace client {

// A node in a report.
struct NodeInReport {
  std::string name;  // for people
  std::string endpoint;
  TableFigures tables = {};
};

TableFigures FiguresOf(const moru_vyr::lsp::AccDecisionInfo& info);

// The tables in force count for more than what was reported.
void SetDirectInForce(TableFigures* figures, const DirectWay& direct);

// The flow's node is this one, which may have been reported before.
void SetNode(Flow* flow, const NodeInReport& node, uint64_t time_ms);

// A node begins a trial, or agrees to one that has begun.
void SetTrial(Flow* flow, const NodeInReport& node, uint64_t time_ms);

// The trial that runs, or one that was too short to be reported, has ended without a move.
// `is_told`: by a report of trouble, which comes after the node's own refusal.
void EndTrial(Flow* flow, uint64_t time_ms, const std::string& outcome, bool is_told);

// The trial that runs, if any, took the flow over.
void Move(Flow* flow, uint64_t time_ms);

// Counts the figures for the stay that they belong to, and says which it is. The flow still has its
// totals of the report before.
size_t AddFigures(Flow* flow, const moru_vyr::lsp::CommInfoRecord& record, const NodeInReport& node,
                  uint64_t time_ms);

void EndStays(Flow* flow, uint64_t time_ms);

// "delay_amp>=20;delay_avg>=50;real_lost>=20"
std::optional<TroubleLimits> LimitsOf(const std::string& condition);

Section SectionOf(const moru_vyr::lsp::FineStats& fine);

// The probes of a route with one relay are counted as sent in both halves and as answered in one.
inline constexpr uint32_t kTwoRelays = 2;

}  // namespace client
