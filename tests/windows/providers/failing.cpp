// A next provider whose start fails.
#include <winsock2.h>
#include <ws2spi.h>

extern "C" int WSPAPI WSPStartup(WORD, LPWSPDATA, LPWSAPROTOCOL_INFOW, WSPUPCALLTABLE,
                                 LPWSPPROC_TABLE) {
  return WSASYSNOTREADY;
}
