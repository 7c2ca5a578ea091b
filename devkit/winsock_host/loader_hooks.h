// Handles modules and functions that the program finds at run time.
#pragma once

namespace winsock_host {

// Registers the replacements of the loader's functions, and of the debugger output that the
// report keeps a copy of. Before anything is patched.
void AddLoaderReplacements();

// From here on every module is patched as it is loaded, before its own code runs where the
// platform allows that.
void FollowModuleLoads();

}  // namespace winsock_host
