#include "start/provider_loader.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "common/log.h"
#include "common/text.h"

namespace moru_vyr::lsp {
namespace {

constexpr DWORD kExpandedSize = 259;  // characters that an expanded path may take, with its end

int LastError() { return static_cast<int>(GetLastError()); }

// For paths that the platform cannot expand as wide text.
bool LoadNarrow(LspProvider* provider, int* error) {
  char path[261] = {};
  const int length = std::clamp(provider->path_length, 0, 260);
  if (WideCharToMultiByte(CP_ACP, 0, provider->provider_path, length, path, 260, nullptr,
                          nullptr) == 0) {
    *error = LastError();
    common::LspTrace("LoadProviderPath: WideCharToMultiByte failed: %d", *error);
    return false;
  }
  char expanded[261] = {};
  const DWORD expanded_length = ExpandEnvironmentStringsA(path, expanded, kExpandedSize);
  if (expanded_length == 0 || expanded_length > kExpandedSize) {
    *error = LastError();
    common::LspTrace("LoadProviderPath: ExpandEnvironmentStringsA failed: %d", *error);
    return false;
  }
  provider->module = LoadLibraryA(expanded);
  if (provider->module == nullptr) {
    *error = LastError();
    common::LspTrace("LoadProviderPath: LoadLibraryA failed: %d", *error);
    return false;
  }
  return true;
}

// A path that is too long once expanded loads nothing, and that is not yet a failure here.
bool LoadModule(LspProvider* provider, int* error) {
  const DWORD length =
      ExpandEnvironmentStringsW(provider->provider_path, provider->expanded_path, kExpandedSize);
  if (length == 0) return LoadNarrow(provider, error);
  if (length > kExpandedSize) return true;
  provider->module = LoadLibraryW(provider->expanded_path);
  if (provider->module == nullptr) {
    *error = LastError();
    common::LspTrace("LoadProviderPath: LoadLibraryW failed: %d", *error);
    return false;
  }
  return true;
}

bool IsComplete(const WSPPROC_TABLE& table) {
  constexpr std::size_t kEntries = sizeof(WSPPROC_TABLE) / sizeof(FARPROC);
  static_assert(kEntries == 30);
  FARPROC entries[kEntries];
  std::memcpy(entries, &table, sizeof table);
  return std::find(std::begin(entries), std::end(entries), nullptr) == std::end(entries);
}

void TraceStartFailed(const WSAPROTOCOL_INFOW& provider, int result) {
  std::string name;
  try {
    common::u16to8(provider.szProtocol, &name);
  } catch (...) {
    name.clear();
  }
  common::LspTrace("%s::InitializeProvider failed: %d", name.c_str(), result);
}

}  // namespace

bool LoadProviderPath(LspProvider* provider, int* error) noexcept {
  if (provider == nullptr || error == nullptr) {
    common::LspTrace("LoadProviderPath: param invalid!");
    return false;
  }
  *error = 0;
  provider->path_length = kExpandedSize;
  if (WSCGetProviderPath(&provider->next_provider.ProviderId, provider->provider_path,
                         &provider->path_length, error) == SOCKET_ERROR) {
    common::LspTrace("LoadProviderPath: WSCGetProviderPath failed: %d", *error);
    *error = LastError();
    return false;
  }
  if (!LoadModule(provider, error)) return false;
  const FARPROC start = GetProcAddress(provider->module, "WSPStartup");
  // Guard: without a module the platform may look into the program itself, which is no provider.
  if (start == nullptr || provider->module == nullptr) {
    *error = LastError();
    common::LspTrace("LoadProviderPath: GetProcAddress failed: %d", *error);
    return false;
  }
  static_assert(sizeof provider->start_function == sizeof start);
  std::memcpy(&provider->start_function, &start, sizeof start);
  return true;
}

int InitializeProvider(LspProvider* provider, WORD version, LPWSAPROTOCOL_INFOW in_info,
                       WSPUPCALLTABLE upcalls, int* error) noexcept {
  if (!LoadProviderPath(provider, error)) {
    common::LspTrace("InitializeProvider: LoadProviderPath failed: %d", *error);
    return -1;
  }
  // A base provider is told of its own entry; a layer in the middle of the chain that was asked
  // for, so that it can find its own place there.
  const bool next_is_base = provider->next_provider.ProtocolChain.ChainLen == BASE_PROTOCOL;
  const int result = provider->start_function(version, &provider->wsp_data,
                                              next_is_base ? &provider->next_provider : in_info,
                                              upcalls, &provider->next_table);
  if (result != 0) {
    TraceStartFailed(provider->next_provider, result);
    *error = result;
    return result;
  }
  if (!IsComplete(provider->next_table)) {
    *error = WSAEINVALIDPROCTABLE;
    return -1;
  }
  return 0;
}

}  // namespace moru_vyr::lsp
