// Ends threads the way Windows does, on a platform whose own way harms the process.
#pragma once

namespace winsock_host {

// Registers the replacement. Before anything is patched.
void AddThreadReplacements();

}  // namespace winsock_host
