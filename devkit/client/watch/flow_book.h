// Combines the reports on each flow.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "abi/report_records.h"
#include "client/watch/flow.h"
#include "client/watch/report.h"

namespace client {

// Bounded: the older half of a long flow's points is thinned out, and beyond kMostFlows flows the
// one with the oldest news is forgotten.
class FlowBook {
 public:
  static constexpr size_t kMostFlows = 1000;
  static constexpr size_t kMostPoints = 4000;
  static constexpr size_t kMostMarks = 500;
  static constexpr size_t kMostProcesses = 200;

  void Add(const Report& report);

  // In the order of their first reports.
  const std::list<Flow>& flows() const { return flows_; }
  const std::vector<Process>& processes() const { return processes_; }

  // The process of a flow, if the reports tell it. Null otherwise.
  const Process* ProcessOf(const Flow& flow) const;

 private:
  Flow* Find(const std::string& guid, const std::string& game, uint64_t time_ms);
  Flow* FindByServer(const std::string& game);
  std::string NodeName(uint32_t proxy_idc, const std::string& endpoint) const;
  std::string ShortName(uint32_t proxy_idc) const;
  Process* NewProcess(uint64_t game_id, uint64_t time_ms);
  void AddLoaded(const Report& report);
  void AddLogPath(const Report& report);
  std::string Doubt(const Flow& flow, size_t stay) const;
  void AddMark(Flow* flow, uint64_t time_ms, MarkKind kind, std::string text);
  void AddDecision(const Report& report);
  void AddNegotiation(const Report& report);
  void AddFailure(const Report& report);
  void AddSwitch(const Report& report);
  void AddTraffic(const Report& report);
  static void AddPoint(Flow* flow, const moru_vyr::lsp::CommInfoRecord& record, uint64_t time_ms,
                       size_t stay);

  std::list<Flow> flows_;
  std::map<std::string, Flow*> by_key_;
  std::map<uint32_t, std::string> node_names_;  // by proxy_idc
  std::vector<Process> processes_;              // in the order of their reports
};

}  // namespace client
