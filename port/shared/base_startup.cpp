#include "port/shared/base_startup.h"

#include <atomic>

#include "port/shared/backend.h"
#include "port/shared/faults.h"

namespace port {
namespace {

std::atomic<int> starts{0};
std::atomic<DWORD> last_entry{0};

}  // namespace

int WSPAPI BaseStartup(WORD version, LPWSPDATA data, LPWSAPROTOCOL_INFOW info, WSPUPCALLTABLE,
                       LPWSPPROC_TABLE out) {
  INT error = 0;
  if (Fails("BaseStartup", &error)) return error;
  if (version < MAKEWORD(2, 2)) return WSAVERNOTSUPPORTED;
  if (!data || !out) return WSAEFAULT;
  ++starts;
  if (info) last_entry = info->dwCatalogEntryId;
  *data = {};
  data->wVersion = data->wHighVersion = MAKEWORD(2, 2);
  std::wcscpy(data->szDescription, L"Base provider");
  *out = BaseProviderTable();
  return 0;
}

int BaseStarts() { return starts; }
DWORD LastBaseEntry() { return last_entry; }

}  // namespace port
