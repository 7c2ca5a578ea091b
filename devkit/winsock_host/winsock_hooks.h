// Which platform function has which replacement.
#pragma once

namespace winsock_host {

// Before anything is patched.
void AddWinsockReplacements();

}  // namespace winsock_host
