#ifndef VYR_PORT_WS2TCPIP_H
#define VYR_PORT_WS2TCPIP_H
#include <winsock2.h>

#endif  // VYR_PORT_WS2TCPIP_H
