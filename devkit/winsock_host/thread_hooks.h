// Lets the library end threads without harm on a platform where that harms the process.
#pragma once

namespace winsock_host {

// Registers the replacement. Before anything is patched.
void AddThreadReplacements();

}  // namespace winsock_host
