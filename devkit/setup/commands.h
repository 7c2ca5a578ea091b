// install, uninstall and repair: what each wants, with what it has to remember between runs.
#pragma once
#include "setup/change.h"
#include "setup/goal.h"
#include "setup/inspect.h"

namespace setup {

struct Request {
  InstallOptions install;            // the libraries that were found, for install and repair
  std::vector<std::wstring> exempt;  // programs that are to load no layered provider
  bool dry_run = false;
};

// The files of one installation. `undo` keeps, from install to uninstall, which categories the
// exempt programs could load before.
struct Records {
  Journal* journal;
  Storage* undo;
};

// Programs that an earlier run has exempted: their categories have to be read with the catalogues.
std::vector<std::wstring> ExemptedPrograms(Storage* undo);

// Each finishes first what a run that was cut short has left, except for a dry run, which refuses.
Outcome Install(Machine* machine, const Records& records, const Request& request);
Outcome Uninstall(Machine* machine, const Records& records, const Request& request);
// Only where something of the library is; without a file for it, it is removed there.
Outcome Repair(Machine* machine, const Records& records, const Request& request,
               const FileExists& exists);

}  // namespace setup
