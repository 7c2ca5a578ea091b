#include "port/shared/installation.h"

#include <sporder.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "port/shared/catalogue.h"
#include "port/shared/faults.h"

namespace port {
namespace {

constexpr DWORD kEveryCategory = 0x800000FF;

std::atomic<bool> administrator{true};
std::mutex installation_lock;

std::map<std::wstring, DWORD>& Categories() {
  static auto& categories = *new std::map<std::wstring, DWORD>;
  return categories;
}

DWORD NextId(const std::vector<WSAPROTOCOL_INFOW>& entries) {
  DWORD last = 1000;
  for (const auto& entry : entries) last = std::max(last, entry.dwCatalogEntryId);
  return last + 1;
}

// The error of an installation with these arguments, 0 if there is none.
int Refusal(const GUID* provider, const WCHAR* path, const WSAPROTOCOL_INFOW* entries,
            DWORD count) {
  if (!provider || !path || !entries) return WSAEFAULT;
  if (count == 0 || *path == 0 || std::wstring(path).size() >= MAX_PATH) return WSAEINVAL;
  if (!ProviderPath(*provider).empty()) return WSAEINVAL;
  return administrator ? 0 : WSANO_RECOVERY;
}

}  // namespace

void SetAdministrator(bool is_administrator) { administrator = is_administrator; }

std::map<std::wstring, DWORD> ApplicationCategories() {
  std::lock_guard hold(installation_lock);
  return Categories();
}

void SetApplicationCategories(std::map<std::wstring, DWORD> categories) {
  std::lock_guard hold(installation_lock);
  Categories() = std::move(categories);
}

}  // namespace port

int WSPAPI WSCInstallProvider(GUID* provider, const WCHAR* path, LPWSAPROTOCOL_INFOW entries,
                              DWORD count, LPINT error) {
  if (port::Fails("WSCInstallProvider", error)) return SOCKET_ERROR;
  if (const int refusal = port::Refusal(provider, path, entries, count))
    return port::FailCatalogueCall(error, refusal);
  auto catalogue = port::Catalogue();
  for (DWORD i = 0; i < count; ++i) {
    WSAPROTOCOL_INFOW entry = entries[i];
    entry.ProviderId = *provider;
    entry.dwCatalogEntryId = port::NextId(catalogue);
    catalogue.push_back(entry);
  }
  port::SetProviderPath(*provider, path);
  port::SetCatalogue(std::move(catalogue));
  return 0;
}

int WSPAPI WSCDeinstallProvider(GUID* provider, LPINT error) {
  if (port::Fails("WSCDeinstallProvider", error)) return SOCKET_ERROR;
  if (!provider) return port::FailCatalogueCall(error, WSAEFAULT);
  if (port::ProviderPath(*provider).empty()) return port::FailCatalogueCall(error, WSAEINVAL);
  if (!port::administrator) return port::FailCatalogueCall(error, WSANO_RECOVERY);
  auto catalogue = port::Catalogue();
  std::erase_if(catalogue, [&](const auto& entry) { return entry.ProviderId == *provider; });
  port::RemoveProviderPath(*provider);
  port::SetCatalogue(std::move(catalogue));
  return 0;
}

int WSPAPI WSCWriteProviderOrder(LPDWORD ids, DWORD count) {
  INT error = 0;
  if (port::Fails("WSCWriteProviderOrder", &error)) return error;
  if (!ids) return WSAEFAULT;
  const auto catalogue = port::Catalogue();
  if (count != catalogue.size()) return WSAEINVAL;
  std::vector<WSAPROTOCOL_INFOW> ordered;
  for (DWORD i = 0; i < count; ++i) {
    const auto at = std::find_if(catalogue.begin(), catalogue.end(), [&](const auto& entry) {
      return entry.dwCatalogEntryId == ids[i];
    });
    if (at == catalogue.end()) return WSAEINVAL;
    ordered.push_back(*at);
  }
  if (!port::administrator) return WSANO_RECOVERY;
  port::SetCatalogue(std::move(ordered));
  return 0;
}

int WSPAPI WSCSetApplicationCategory(LPCWSTR path, DWORD path_length, LPCWSTR, DWORD,
                                     DWORD permitted, DWORD* previous, LPINT error) {
  if (port::Fails("WSCSetApplicationCategory", error)) return SOCKET_ERROR;
  if (!path) return port::FailCatalogueCall(error, WSAEFAULT);
  if (path_length == 0) return port::FailCatalogueCall(error, WSAEINVAL);
  if (!port::administrator) return port::FailCatalogueCall(error, WSANO_RECOVERY);
  std::lock_guard hold(port::installation_lock);
  const std::wstring program(path, path_length);
  const auto known = port::Categories().find(program);
  if (previous)
    *previous = known == port::Categories().end() ? port::kEveryCategory : known->second;
  port::Categories()[program] = permitted;
  return 0;
}

int WSPAPI WSCGetApplicationCategory(LPCWSTR path, DWORD path_length, LPCWSTR, DWORD,
                                     DWORD* permitted, LPINT error) {
  if (port::Fails("WSCGetApplicationCategory", error)) return SOCKET_ERROR;
  if (!path || !permitted) return port::FailCatalogueCall(error, WSAEFAULT);
  std::lock_guard hold(port::installation_lock);
  const auto known = port::Categories().find(std::wstring(path, path_length));
  if (known == port::Categories().end())
    return port::FailCatalogueCall(error, WSASERVICE_NOT_FOUND);
  *permitted = known->second;
  return 0;
}
