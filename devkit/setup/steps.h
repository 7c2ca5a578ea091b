// From the catalogues as they are to those that are wanted, one call at a time.
//
// Every state between two steps has a working network: layered entries are installed behind all
// others, where no socket finds them, and come to the front in one call; they are removed before
// the hidden entry to which their chains lead. Entries of other providers keep their numbers and
// their order among themselves.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "setup/machine.h"

namespace setup {

enum class Action { kInstall, kDeinstall, kWriteOrder, kPermitCategories };

struct Step {
  Action action;
  Kind kind = Kind::k32;
  Provider provider = {};         // kInstall, with its chains as the call takes them; kDeinstall
  std::vector<DWORD> order = {};  // kWriteOrder
  std::wstring program = {};      // kPermitCategories
  DWORD permitted = 0;
};

// The next call to make; nothing if `now` is what is wanted. Numbers of the library's own entries
// in `goal` have no meaning beyond it.
std::optional<Step> NextStep(const MachineImage& now, const MachineImage& goal);

// Another provider's layered entries over what the step would remove: they would stop working.
// Empty if there are none, else the name of one.
std::string BuiltOn(const MachineImage& now, const Step& step);

int Perform(Machine* machine, const Step& step);

// One line for people and for the journal, the same for the same step only.
std::string Describe(const Step& step);

}  // namespace setup
