// Changes the catalogues as a whole: completely, or not at all.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "setup/journal.h"
#include "setup/machine.h"

namespace setup {

enum class Result {
  kNothingToDo,
  kDone,
  kRefused,     // nothing was begun: another provider is built on what would be removed
  kFailed,      // nothing was begun, or all of it was undone
  kUnfinished,  // could not be undone either: the journal stays, and the next run goes on
};

struct Outcome {
  Result result = Result::kNothingToDo;
  std::string problem;
  std::vector<std::string> steps;  // that were made, or would be
};

// The steps that a change would make, and whether it would be refused.
Outcome Plan(const MachineImage& now, const MachineImage& goal);

Outcome Change(Machine* machine, Journal* journal, const MachineImage& goal);

// Before anything else: undoes what a run that was cut short has begun. kNothingToDo without a
// journal.
Outcome Recover(Machine* machine, Journal* journal);

}  // namespace setup
