// The catalogues as they should be.
#pragma once
#include <map>
#include <optional>
#include <string>

#include "setup/own.h"

namespace setup {

struct InstallOptions {
  std::map<Kind, std::wstring> libraries;  // full paths; catalogues without one keep what they have
  // Our layered entries lead to the layered provider that serves a kind of socket today, in place
  // of the base provider below it.
  bool over_others = false;
};

// With the library. Nothing, with a *problem, if a catalogue has no base entry to layer over.
std::optional<MachineImage> InstallGoal(const MachineImage& now, const InstallOptions& options,
                                        std::string* problem);

MachineImage UninstallGoal(const MachineImage& now);

// The entry that serves a new socket of that kind: the first visible one in the order. Null if
// there is none.
const WSAPROTOCOL_INFOW* Serving(const CatalogueImage& image, const Protocol& protocol);

// Whether the library was installed over another layered provider.
bool IsOverOthers(const CatalogueImage& image);

}  // namespace setup
