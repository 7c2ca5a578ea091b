// Programs that the program starts are hosted, too, whether 32-bit or 64-bit: on Windows the
// library is loaded into every process that uses Winsock.
#pragma once

#include "host_config.h"

namespace winsock_host {

// Registers the replacements. Call it before anything is patched. `host` is the module of this
// code.
void AddChildReplacements(HMODULE host, const HostConfig& config);

}  // namespace winsock_host
