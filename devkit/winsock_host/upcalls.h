// The fifteen functions that a provider may call back in Winsock.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

namespace winsock_host {

WSPUPCALLTABLE UpcallTable();

}  // namespace winsock_host
