// Programs that the program starts are hosted as well, whichever kind they are: on Windows the
// library is loaded into every process that uses Winsock.
#pragma once

#include "host_config.h"

namespace winsock_host {

// Registers the replacements. Before anything is patched. `host` is the module of this code.
void AddChildReplacements(HMODULE host, const HostConfig& config);

}  // namespace winsock_host
