// The fifteen functions that a provider may call back in Winsock. Socket handles are made known to
// it by WPUModifyIFSHandle: a handle that no base provider has registered has no owner.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

namespace winsock_host {

WSPUPCALLTABLE UpcallTable();

}  // namespace winsock_host
