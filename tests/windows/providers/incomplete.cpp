// A next provider that starts successfully and leaves one entry of its table empty.
#include <winsock2.h>
#include <ws2spi.h>

#include <cstring>

namespace {

int WSPAPI Nothing(LPINT) { return 0; }

}  // namespace

extern "C" int WSPAPI WSPStartup(WORD, LPWSPDATA, LPWSAPROTOCOL_INFOW, WSPUPCALLTABLE,
                                 LPWSPPROC_TABLE table) {
  void* entries[sizeof(*table) / sizeof(void*)];
  for (void*& entry : entries) entry = reinterpret_cast<void*>(Nothing);
  std::memcpy(table, entries, sizeof(entries));
  table->lpWSPStringToAddress = nullptr;
  return 0;
}
