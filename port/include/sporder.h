// The calls that install providers into the Winsock catalogue, and what only they need. On Windows
// sporder.h declares the order alone, and ws2spi.h the others.
#ifndef VYR_PORT_SPORDER_H
#define VYR_PORT_SPORDER_H
#include <ws2spi.h>

#define PFL_MULTIPLE_PROTO_ENTRIES 0x1u
#define PFL_RECOMMENDED_PROTO_ENTRY 0x2u
#define PFL_HIDDEN 0x4u
#define PFL_MATCHES_PROTOCOL_ZERO 0x8u

#define ERROR_BUSY 170
#define WSA_NOT_ENOUGH_MEMORY 8
#define WSASYSCALLFAILURE 10107
#define WSASERVICE_NOT_FOUND 10108
#define WSATRY_AGAIN 11002
#define WSANO_RECOVERY 11003

int WSPAPI WSCInstallProvider(GUID* provider, const WCHAR* path, LPWSAPROTOCOL_INFOW entries,
                              DWORD count, LPINT error);
int WSPAPI WSCDeinstallProvider(GUID* provider, LPINT error);
// Returns 0 or the error itself.
int WSPAPI WSCWriteProviderOrder(LPDWORD ids, DWORD count);
int WSPAPI WSCSetApplicationCategory(LPCWSTR path, DWORD path_length, LPCWSTR arguments,
                                     DWORD arguments_length, DWORD permitted, DWORD* previous,
                                     LPINT error);
int WSPAPI WSCGetApplicationCategory(LPCWSTR path, DWORD path_length, LPCWSTR arguments,
                                     DWORD arguments_length, DWORD* permitted, LPINT error);

#endif  // VYR_PORT_SPORDER_H
