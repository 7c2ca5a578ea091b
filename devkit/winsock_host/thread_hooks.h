// Ends threads as Windows does on a platform where it harms the process.
#pragma once

namespace winsock_host {

// Registers the replacement. Before anything is patched.
void AddThreadReplacements();

}  // namespace winsock_host
