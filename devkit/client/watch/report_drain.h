// Takes the reports out of their slots.
//
// A slot belongs to the library while its first byte is 0 and to the client program while it is
// not. So reports are copied out under the region's mutex, written out without it, and only then
// given back: a watcher that dies in between leaves them to the next one, and one whose output
// blocks delays no game.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "client/watch/report.h"
#include "common/shared_mem_obj.h"

namespace client {

// Milliseconds since 1970.
uint64_t NowMs();

class ReportDrain {
 public:
  // The reports that wait now, channel by channel, each in the order of its slots. A region that
  // nobody has created is skipped, and so is one whose mutex is not free within that time.
  std::vector<Report> Take(unsigned wait_ms);

  // Frees the slots of reports that have been written out. A slot that has changed since is no
  // longer the report that was taken, and stays. Slots whose mutex is not free within that
  // time are freed by a later call; their reports are not taken twice.
  void GiveBack(std::vector<Report> reports, unsigned wait_ms);

  // Whether any region was there at the last Take.
  bool AnyRegion() const { return any_region_; }

  // What could not be read at the last Take, in words; empty if all could.
  const std::string& trouble() const { return trouble_; }

 private:
  common::Shared_mem_obj* Owner(ReportKind kind);
  bool TakeChannel(ReportKind kind, unsigned wait_ms, std::vector<Report>* reports);
  void CopyUsed(void* region, ReportKind kind, std::vector<Report>* reports) const;
  bool FreeChannel(ReportKind kind, const std::vector<Report>& reports, unsigned wait_ms);

  std::array<std::unique_ptr<common::Shared_mem_obj>, kReportKindCount> owners_;
  std::vector<Report> not_freed_;  // written out, but still in their slots
  bool any_region_ = false;
  std::string trouble_;
};

}  // namespace client
