#include "port/shared/catalogue.h"

#include <atomic>

#include "port/shared/faults.h"
#include "port/shared/modules.h"

namespace port {
namespace {

struct Known {
  GUID provider;
  std::wstring path;
};

std::mutex catalogue_lock;
std::atomic<int> claimed_more{0};

std::vector<WSAPROTOCOL_INFOW>& Entries() {
  static auto& entries = *new std::vector<WSAPROTOCOL_INFOW>(BaseEntries());
  return entries;
}

std::vector<Known>& Providers() {
  static auto& providers = *new std::vector<Known>{{kBaseProviderGuid, kBaseProviderPath}};
  return providers;
}

}  // namespace

int FailCatalogueCall(LPINT error, int number) {
  if (error) *error = number;
  return SOCKET_ERROR;
}

WSAPROTOCOL_INFOW MakeEntry(const GUID& provider, DWORD id, int type, int protocol,
                            const std::vector<DWORD>& chain) {
  WSAPROTOCOL_INFOW entry = {};
  const bool stream = type == SOCK_STREAM;
  entry.dwServiceFlags1 = XP1_IFS_HANDLES | (stream ? XP1_GUARANTEED_DELIVERY | XP1_GUARANTEED_ORDER
                                                    : XP1_CONNECTIONLESS);
  entry.ProviderId = provider;
  entry.dwCatalogEntryId = id;
  entry.ProtocolChain.ChainLen = chain.empty() ? BASE_PROTOCOL : static_cast<int>(chain.size());
  const size_t links = std::min<size_t>(chain.size(), MAX_PROTOCOL_CHAIN);
  std::copy_n(chain.begin(), links, entry.ProtocolChain.ChainEntries);
  entry.iVersion = 2;
  entry.iAddressFamily = AF_INET;
  entry.iMaxSockAddr = entry.iMinSockAddr = sizeof(sockaddr_in);
  entry.iSocketType = type;
  entry.iProtocol = protocol;
  entry.iProtocolMaxOffset = protocol == 0 ? 255 : 0;  // a raw entry serves all protocols
  entry.dwMessageSize = stream ? 0 : 65507;
  const wchar_t* name = stream ? L"TCP/IP" : type == SOCK_DGRAM ? L"UDP/IP" : L"RAW/IP";
  std::wcscpy(entry.szProtocol, name);
  return entry;
}

std::vector<WSAPROTOCOL_INFOW> BaseEntries() {
  return {MakeEntry(kBaseProviderGuid, 1001, SOCK_STREAM, IPPROTO_TCP, {}),
          MakeEntry(kBaseProviderGuid, 1002, SOCK_DGRAM, IPPROTO_UDP, {}),
          MakeEntry(kBaseProviderGuid, 1003, SOCK_RAW, 0, {})};
}

std::vector<WSAPROTOCOL_INFOW> LayeredCatalogue(const GUID& provider, DWORD first_id) {
  const auto base = BaseEntries();
  // The hidden entry comes first, so that a search for the provider's GUID finds it and not one of
  // the layered entries, which have the same GUID.
  auto hidden = MakeEntry(provider, first_id, SOCK_STREAM, IPPROTO_TCP, {});
  hidden.ProtocolChain.ChainLen = LAYERED_PROTOCOL;
  std::vector<WSAPROTOCOL_INFOW> all = {hidden};
  DWORD id = first_id;
  for (const auto& below : base)
    all.push_back(MakeEntry(provider, ++id, below.iSocketType, below.iProtocol,
                            {first_id, below.dwCatalogEntryId}));
  all.insert(all.end(), base.begin(), base.end());
  return all;
}

void SetCatalogue(std::vector<WSAPROTOCOL_INFOW> entries) {
  std::lock_guard hold(catalogue_lock);
  Entries() = std::move(entries);
}

std::vector<WSAPROTOCOL_INFOW> Catalogue() {
  std::lock_guard hold(catalogue_lock);
  return Entries();
}

void ClaimMoreEntries(int more) { claimed_more = more; }

void RemoveProviderPath(const GUID& provider) {
  std::lock_guard hold(catalogue_lock);
  std::erase_if(Providers(), [&](const Known& known) { return known.provider == provider; });
}

void SetProviderPath(const GUID& provider, const std::wstring& path) {
  RemoveProviderPath(provider);
  std::lock_guard hold(catalogue_lock);
  Providers().push_back({provider, path});
}

std::wstring ProviderPath(const GUID& provider) {
  std::lock_guard hold(catalogue_lock);
  for (const Known& known : Providers())
    if (known.provider == provider) return known.path;
  return {};
}

}  // namespace port

int WSPAPI WSCEnumProtocols(LPINT protocols, LPWSAPROTOCOL_INFOW buffer, LPDWORD size,
                            LPINT error) {
  if (port::Fails("WSCEnumProtocols", error)) return SOCKET_ERROR;
  if (!size) return port::FailCatalogueCall(error, WSAEFAULT);
  std::vector<WSAPROTOCOL_INFOW> wanted;
  for (const WSAPROTOCOL_INFOW& entry : port::Catalogue()) {
    bool asked = protocols == nullptr;  // none given: all of them, including hidden ones
    for (LPINT one = protocols; one && *one; ++one) asked = asked || *one == entry.iProtocol;
    if (asked) wanted.push_back(entry);
  }
  const DWORD needed = static_cast<DWORD>(wanted.size() * sizeof(WSAPROTOCOL_INFOW));
  const DWORD given = *size;
  *size = needed;
  if (given < needed || (!buffer && needed > 0)) return port::FailCatalogueCall(error, WSAENOBUFS);
  std::copy(wanted.begin(), wanted.end(), buffer);
  return static_cast<int>(wanted.size()) + port::claimed_more;
}

int WSPAPI WSCGetProviderPath(GUID* provider, WCHAR* path, LPINT path_length, LPINT error) {
  if (port::Fails("WSCGetProviderPath", error)) return SOCKET_ERROR;
  if (!provider || !path || !path_length) return port::FailCatalogueCall(error, WSAEFAULT);
  const std::wstring known = port::ProviderPath(*provider);
  if (known.empty()) return port::FailCatalogueCall(error, WSAEINVALIDPROVIDER);
  const int needed = static_cast<int>(known.size()) + 1;
  const int given = *path_length;
  *path_length = needed;
  if (given < needed) return port::FailCatalogueCall(error, WSAEFAULT);
  std::copy_n(known.c_str(), needed, path);
  return 0;
}
