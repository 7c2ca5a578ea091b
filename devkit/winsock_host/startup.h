// Whether Winsock is started in this process, and the order in which it ends.
//
// The start-up lock is held during the whole of WSAStartup and WSACleanup, including the cleanup
// and unloading of providers.
#pragma once

#include "host_config.h"

namespace winsock_host {

// Call it once, before anything is patched. A start that a module made before the host was loaded
// counts as one of the program's.
void PrepareStartup(const HostConfig& config);

// Any thread. Calls that need a started Winsock answer WSANOTINITIALISED otherwise.
bool IsStarted();

}  // namespace winsock_host
