#include "catalogue.h"

#include <cstring>
#include <cwchar>
#include <string>

#include "catalogue_file.h"

namespace winsock_host {
namespace {

constexpr DWORD kHiddenId = kFirstCatalogId + 0x10;
constexpr DWORD kLayeredId = kFirstCatalogId + 0x11;
constexpr DWORD kBaseId = kFirstCatalogId + 0x01;

constexpr GUID kLibraryGuid = {
    0x4D2062B0, 0x79CA, 0x466E, {0x94, 0xD4, 0x21, 0xFE, 0x2E, 0xD9, 0x0E, 0xE6}};
// Of the first layered entry; the others count its last byte up, or share it. A provider is started
// once for each GUID: with one for all it is started for the first kind of socket alone, and that
// table serves the other kinds too.
constexpr GUID kLayeredGuid = {
    0x9B1C44D7, 0x5E0A, 0x4F42, {0x8D, 0x6B, 0x3A, 0x77, 0x10, 0xC2, 0x5E, 0x01}};
constexpr GUID kBaseGuid = {
    0x3F0B7A52, 0xC6D1, 0x4B7E, {0xA1, 0x95, 0x62, 0xE4, 0x0D, 0x8F, 0x93, 0x02}};

constexpr DWORD kStreamFlags = XP1_GUARANTEED_DELIVERY | XP1_GUARANTEED_ORDER | XP1_GRACEFUL_CLOSE |
                               XP1_EXPEDITED_DATA | XP1_IFS_HANDLES;
constexpr DWORD kDatagramFlags = XP1_CONNECTIONLESS | XP1_MESSAGE_ORIENTED | XP1_SUPPORT_BROADCAST |
                                 XP1_SUPPORT_MULTIPOINT | XP1_IFS_HANDLES;

struct EntryKind {
  const wchar_t* name;
  int family;
  int type;
  int protocol;
  int protocol_range;  // protocols above `protocol` that the entry serves as well
  DWORD service_flags;
  DWORD message_size;
};
constexpr EntryKind kKinds[] = {
    {L"TCP", AF_INET, SOCK_STREAM, IPPROTO_TCP, 0, kStreamFlags, 0},
    {L"UDP", AF_INET, SOCK_DGRAM, IPPROTO_UDP, 0, kDatagramFlags, 65467},
    {L"RAW", AF_INET, SOCK_RAW, IPPROTO_IP, 255, kDatagramFlags, 32768},
    {L"TCPv6", AF_INET6, SOCK_STREAM, IPPROTO_TCP, 0, kStreamFlags, 0},
    {L"UDPv6", AF_INET6, SOCK_DGRAM, IPPROTO_UDP, 0, kDatagramFlags, 65467},
    {L"RAWv6", AF_INET6, SOCK_RAW, IPPROTO_IP, 255, kDatagramFlags, 32768},
};
constexpr DWORD kLayeredKinds = 3;  // the library layers over the first three

struct CatalogueState {
  std::vector<CatalogueEntry> entries;
  wchar_t library[kConfigPathChars];
  wchar_t base[kConfigPathChars];
  FileCatalogue file;  // empty unless the catalogue is a file's
};
CatalogueState& TheCatalogueState() {
  static CatalogueState& state =
      *new CatalogueState{};  // never destroyed: threads outlive static destructors
  return state;
}

WSAPROTOCOL_INFOW Describe(const EntryKind& kind) {
  WSAPROTOCOL_INFOW info = {};
  info.dwServiceFlags1 = kind.service_flags;
  info.dwProviderFlags = PFL_MULTIPLE_PROTO_ENTRIES | PFL_MATCHES_PROTOCOL_ZERO;
  info.iVersion = 2;
  info.iAddressFamily = kind.family;
  info.iMinSockAddr = 16;
  info.iMaxSockAddr = kind.family == AF_INET ? 16 : 28;
  info.iSocketType = kind.type;
  info.iProtocol = kind.protocol;
  info.iProtocolMaxOffset = kind.protocol_range;
  info.dwMessageSize = kind.message_size;
  return info;
}

void SetName(WSAPROTOCOL_INFOW* info, const wchar_t* prefix, const wchar_t* name) {
  std::wcsncpy(info->szProtocol, prefix, WSAPROTOCOL_LEN);
  std::wcsncat(info->szProtocol, name, WSAPROTOCOL_LEN - std::wcslen(info->szProtocol));
}

// A layer does not promise handles that behave like the platform's own in every respect. Programs
// that see this do not skip their completion ports for calls that succeed at once. With the library
// they must not: its ConnectEx answers TRUE for a connect that is still running.
WSAPROTOCOL_INFOW DescribeLayer(const EntryKind& kind) {
  WSAPROTOCOL_INFOW info = Describe(kind);
  info.dwServiceFlags1 &= ~DWORD{XP1_IFS_HANDLES};
  return info;
}

void AddHiddenEntry() {
  WSAPROTOCOL_INFOW info = DescribeLayer(kKinds[0]);
  info.dwProviderFlags |= PFL_HIDDEN;
  info.ProviderId = kLibraryGuid;
  info.dwCatalogEntryId = kHiddenId;
  info.ProtocolChain.ChainLen = LAYERED_PROTOCOL;
  SetName(&info, L"vyr", L"");
  TheCatalogueState().entries.push_back({info, true});
}

void AddLayeredEntry(DWORD kind, bool one_guid) {
  WSAPROTOCOL_INFOW info = DescribeLayer(kKinds[kind]);
  info.ProviderId = kLayeredGuid;
  if (!one_guid) info.ProviderId.Data4[7] = static_cast<BYTE>(info.ProviderId.Data4[7] + kind);
  info.dwCatalogEntryId = kLayeredId + kind;
  info.ProtocolChain.ChainLen = 2;
  info.ProtocolChain.ChainEntries[0] = kHiddenId;
  info.ProtocolChain.ChainEntries[1] = kBaseId + kind;
  SetName(&info, L"vyr over ", kKinds[kind].name);
  TheCatalogueState().entries.push_back({info, true});
}

void AddBaseEntry(DWORD kind) {
  WSAPROTOCOL_INFOW info = Describe(kKinds[kind]);
  info.ProviderId = kBaseGuid;
  info.dwCatalogEntryId = kBaseId + kind;
  info.ProtocolChain.ChainLen = BASE_PROTOCOL;
  info.ProtocolChain.ChainEntries[0] = kBaseId + kind;
  SetName(&info, L"base ", kKinds[kind].name);
  TheCatalogueState().entries.push_back({info, false});
}

bool Matches(const WSAPROTOCOL_INFOW& info, int family, int type, int protocol) {
  if ((info.dwProviderFlags & PFL_HIDDEN) != 0) return false;
  if (family != AF_UNSPEC && family != info.iAddressFamily) return false;
  if (type != 0 && type != info.iSocketType) return false;
  if (protocol == 0) return (info.dwProviderFlags & PFL_MATCHES_PROTOCOL_ZERO) != 0;
  return protocol >= info.iProtocol && protocol <= info.iProtocol + info.iProtocolMaxOffset;
}

bool IsWanted(const int* protocols, int protocol) {
  if (protocols == nullptr) return true;
  for (; *protocols != 0; ++protocols) {
    if (*protocols == protocol) return true;
  }
  return false;
}

bool ReadFile(const wchar_t* path) {
  CatalogueState& state = TheCatalogueState();
  if (!ReadCatalogueFile(path, &state.file)) return false;
  for (const WSAPROTOCOL_INFOW& info : state.file.entries) {
    state.entries.push_back({info, info.ProtocolChain.ChainLen != BASE_PROTOCOL});
  }
  return true;
}

}  // namespace

bool BuildCatalogue(const HostConfig& config) {
  CatalogueState& state = TheCatalogueState();
  state.entries.clear();
  std::wcsncpy(state.library, config.library, kConfigPathChars - 1);
  std::wcsncpy(state.base, config.next, kConfigPathChars - 1);
  if (config.catalogue[0] != 0) return ReadFile(config.catalogue);
  if (config.bare == 0) {
    AddHiddenEntry();
    for (DWORD kind = 0; kind < kLayeredKinds; ++kind) {
      AddLayeredEntry(kind, config.one_guid != 0);
    }
  }
  for (DWORD kind = 0; kind < std::size(kKinds); ++kind) AddBaseEntry(kind);
  return true;
}

const std::vector<CatalogueEntry>& Catalogue() { return TheCatalogueState().entries; }

int FindEntry(int family, int type, int protocol) {
  const std::vector<CatalogueEntry>& entries = Catalogue();
  for (size_t i = 0; i < entries.size(); ++i) {
    if (Matches(entries[i].info, family, type, protocol)) return static_cast<int>(i);
  }
  return -1;
}

const wchar_t* ModulePath(const WSAPROTOCOL_INFOW& info) {
  const CatalogueState& state = TheCatalogueState();
  if (info.ProtocolChain.ChainLen == BASE_PROTOCOL) return state.base;
  const std::wstring* path = PathIn(state.file, info.ProviderId);
  return path != nullptr ? path->c_str() : state.library;
}

int WSPAPI EnumProtocols(LPINT protocols, LPWSAPROTOCOL_INFOW buffer, LPDWORD length, LPINT error) {
  if (length == nullptr || error == nullptr) {
    if (error != nullptr) *error = WSAEFAULT;
    return SOCKET_ERROR;
  }
  std::vector<WSAPROTOCOL_INFOW> wanted;
  for (const CatalogueEntry& entry : Catalogue()) {
    if (IsWanted(protocols, entry.info.iProtocol)) wanted.push_back(entry.info);
  }
  const DWORD needed = static_cast<DWORD>(wanted.size() * sizeof(WSAPROTOCOL_INFOW));
  if (buffer == nullptr || *length < needed) {
    *length = needed;
    *error = WSAENOBUFS;
    return SOCKET_ERROR;
  }
  if (needed != 0) std::memcpy(buffer, wanted.data(), needed);
  return static_cast<int>(wanted.size());
}

int WSPAPI GetProviderPath(LPGUID provider, WCHAR* path, LPINT length, LPINT error) {
  int ignored = 0;
  if (error == nullptr) error = &ignored;
  if (provider == nullptr || path == nullptr || length == nullptr) {
    *error = WSAEFAULT;
    return SOCKET_ERROR;
  }
  for (const CatalogueEntry& entry : Catalogue()) {
    if (entry.info.ProviderId != *provider) continue;
    const wchar_t* module = ModulePath(entry.info);
    const int needed = static_cast<int>(std::wcslen(module)) + 1;
    if (*length < needed) {
      *length = needed;
      *error = WSAEFAULT;
      return SOCKET_ERROR;
    }
    std::wmemcpy(path, module, static_cast<size_t>(needed));
    *length = needed;
    return 0;
  }
  *error = WSAEINVAL;
  return SOCKET_ERROR;
}

}  // namespace winsock_host
