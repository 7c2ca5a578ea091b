// Windows' documented installation calls. Their headers have to come in this order.
#pragma once
#include <winsock2.h>
//
#include <ws2spi.h>
//
#include <sporder.h>
