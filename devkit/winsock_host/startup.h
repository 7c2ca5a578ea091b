// Whether Winsock is started in this process, and the order in which it ends.
//
// The start-up lock is held for the whole of WSAStartup and WSACleanup, so also while providers
// are told of the last one and unloaded.
#pragma once

#include "host_config.h"

namespace winsock_host {

// Once, before anything is patched. A start that a module made before the host came counts as one
// of the program's.
void PrepareStartup(const HostConfig& config);

// Any thread. Calls that need a started Winsock answer WSANOTINITIALISED otherwise.
bool IsStarted();

}  // namespace winsock_host
