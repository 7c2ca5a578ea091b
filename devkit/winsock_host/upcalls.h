// The fifteen functions of Winsock that a provider may call. Socket handles are registered with
// WPUModifyIFSHandle: a handle that no base provider has registered has no owner.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

namespace winsock_host {

WSPUPCALLTABLE UpcallTable();

}  // namespace winsock_host
