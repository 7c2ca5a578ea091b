// What vyr_setup prints, as text for people or as one JSON object, and its exit codes.
#pragma once
#include <vector>

#include "setup/change.h"
#include "setup/inspect.h"

namespace setup {

enum ExitCode : int {
  kExitDone = 0,
  kExitFailed = 1,
  kExitUsage = 2,
  kExitBadFile = 3,
  kExitNoLibrary = 4,
  kExitNoRights = 5,
  kExitRefused = 6,
  kExitUnfinished = 7,
  kExitBusy = 8,
  kExitAbsent = 10,
  kExitDamaged = 11,
};
extern const char kExitCodesHelp[];

// Each prints and returns the exit code.
int ReportOutcome(const Outcome& outcome, bool dry_run, bool json);
int ReportStatus(const std::vector<CatalogueStatus>& all, bool unfinished, bool has_both,
                 bool json);

}  // namespace setup
