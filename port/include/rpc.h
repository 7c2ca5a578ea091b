// Connection identifiers.
#ifndef VYR_PORT_RPC_H
#define VYR_PORT_RPC_H
#include <windows.h>

typedef LONG RPC_STATUS;
#define RPC_S_OK 0
#define RPC_S_UUID_LOCAL_ONLY 1824
#define RPC_S_UUID_NO_ADDRESS 1739
RPC_STATUS WINAPI UuidCreate(UUID* out);

#endif  // VYR_PORT_RPC_H
