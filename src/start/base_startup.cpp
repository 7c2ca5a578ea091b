#include "start/base_startup.h"

#include <cstring>

#include "common/log.h"
#include "start/catalogue.h"

namespace moru_vyr::lsp {
namespace {

constexpr DWORD kPathSize = 260;

bool FindBaseEntry(int protocol, WSAPROTOCOL_INFOW* out) {
  int count = 0;
  const GlobalPtr<WSAPROTOCOL_INFOW> catalogue(GetProtocols(&count));
  if (catalogue == nullptr) return false;
  for (const WSAPROTOCOL_INFOW& entry : EntriesOf(catalogue.get(), count)) {
    if (entry.iAddressFamily != AF_INET || entry.ProtocolChain.ChainLen != BASE_PROTOCOL) continue;
    if (entry.iProtocol != protocol) continue;
    *out = entry;
    return true;
  }
  return false;
}

bool FindModulePath(WSAPROTOCOL_INFOW& entry, wchar_t (&out)[kPathSize]) {
  wchar_t path[kPathSize] = {};
  INT length = kPathSize;
  INT error = 0;
  if (WSCGetProviderPath(&entry.ProviderId, path, &length, &error) == SOCKET_ERROR) {
    LSP_LOG(5, "BSPStartup: WSCGetProviderPath failed , err=%d", error);
    return false;
  }
  // A path that is too long once expanded is left for the loader to refuse.
  if (ExpandEnvironmentStringsW(path, out, kPathSize) == 0) {
    const DWORD last_error = GetLastError();
    LSP_LOG(5, "BSPStartup: ExpandEnvironmentStrings failed, err=%d", static_cast<int>(last_error));
    return false;
  }
  out[kPathSize - 1] = 0;
  return true;
}

}  // namespace

int BSPStartup(WORD version, LPWSPDATA wsp_data, LPWSAPROTOCOL_INFOW in_info,
               WSPUPCALLTABLE upcalls, LPWSPPROC_TABLE out_table) noexcept {
  WSAPROTOCOL_INFOW entry{};
  wchar_t path[kPathSize] = {};
  if (!FindBaseEntry(in_info->iProtocol, &entry)) return WSAEPROVIDERFAILEDINIT;
  if (!FindModulePath(entry, path)) return WSAEPROVIDERFAILEDINIT;
  const HMODULE module = LoadLibraryW(path);
  if (module == nullptr) {
    const DWORD error = GetLastError();
    LSP_LOG(5, "BSPStartup: LoadLibrary failed, err=%d", static_cast<int>(error));
    return WSAEPROVIDERFAILEDINIT;
  }
  const FARPROC exported = GetProcAddress(module, "WSPStartup");
  if (exported == nullptr) {
    const DWORD error = GetLastError();
    LSP_LOG(5, "BSPStartup: GetProcAddress failed, err=%d", static_cast<int>(error));
    FreeLibrary(module);
    return WSAEPROVIDERFAILEDINIT;
  }
  LPWSPSTARTUP start = nullptr;
  std::memcpy(&start, &exported, sizeof start);
  const int result = start(version, wsp_data, &entry, upcalls, out_table);
  LSP_LOG(5, "BSPStartup:  ret=%d", result);
  // The table that was just returned points into the module. A reference of its own keeps the
  // module there, even if no first start of the protocol holds one.
  if (result == 0) LoadLibraryW(path);
  FreeLibrary(module);
  return result;
}

}  // namespace moru_vyr::lsp
