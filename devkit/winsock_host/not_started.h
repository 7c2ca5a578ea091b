// The results of Winsock's calls while it is not started: before the first WSAStartup and after the
// last WSACleanup.
#pragma once

#include "providers.h"

namespace winsock_host {

// A provider each of whose entries fails with WSANOTINITIALISED.
const Provider& RefusingProvider();

}  // namespace winsock_host
