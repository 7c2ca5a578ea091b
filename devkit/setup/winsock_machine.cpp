#include "setup/winsock_machine.h"

#include <algorithm>

#include "setup/install_calls.h"

namespace setup {
namespace {

constexpr int kMostPath = 1024;

// The result of a call that returns SOCKET_ERROR and a reason. A failure without one stays a
// failure.
int Error(int result, int reason) {
  if (result != SOCKET_ERROR) return 0;
  return reason != 0 ? reason : WSANO_RECOVERY;
}

int ReadEntries(std::vector<WSAPROTOCOL_INFOW>* entries) {
  DWORD size = 0;
  INT reason = 0;
  int count = WSCEnumProtocols(nullptr, nullptr, &size, &reason);
  // Another program may add entries between two calls.
  for (int tries = 0; count == SOCKET_ERROR && reason == WSAENOBUFS && tries < 8; ++tries) {
    entries->resize(size / sizeof(WSAPROTOCOL_INFOW) + 1);
    size = static_cast<DWORD>(entries->size() * sizeof(WSAPROTOCOL_INFOW));
    count = WSCEnumProtocols(nullptr, entries->data(), &size, &reason);
  }
  entries->resize(static_cast<size_t>(std::max(count, 0)));
  return Error(count, reason);
}

// A provider whose path Windows does not tell is no reason to stop: it is another's.
std::wstring ReadPath(GUID provider) {
  std::vector<WCHAR> path(kMostPath);
  INT length = kMostPath;
  INT reason = 0;
  const int result = WSCGetProviderPath(&provider, path.data(), &length, &reason);
  return result == SOCKET_ERROR ? std::wstring() : std::wstring(path.data());
}

int ReadCatalogue(CatalogueImage* image) {
  if (const int error = ReadEntries(&image->entries)) return error;
  for (const WSAPROTOCOL_INFOW& entry : image->entries) {
    if (!PathOf(*image, entry.ProviderId).empty()) continue;
    std::wstring path = ReadPath(entry.ProviderId);
    if (path.empty() && IsOwn(entry.ProviderId)) return WSAEINVALIDPROVIDER;
    if (!path.empty()) image->paths.push_back({entry.ProviderId, std::move(path)});
  }
  return 0;
}

// A program that Windows does not know may load everything.
int ReadPermitted(const std::wstring& program, DWORD* permitted) {
  INT reason = 0;
  const int result = WSCGetApplicationCategory(program.c_str(), static_cast<DWORD>(program.size()),
                                               nullptr, 0, permitted, &reason);
  if (result != SOCKET_ERROR || reason != WSASERVICE_NOT_FOUND) return Error(result, reason);
  *permitted = kEveryCategory;
  return 0;
}

}  // namespace

int WinsockMachine::Read(MachineImage* image) {
  *image = {};
  if (twin_ != nullptr) {
    if (const int error = twin_->Read(image)) return error;
  }
  for (const std::wstring& program : programs_) {
    if (const int error = ReadPermitted(program, &image->applications[program])) return error;
  }
  return ReadCatalogue(&image->catalogues[own_]);
}

int WinsockMachine::Install(Kind kind, const Provider& provider) {
  if (kind != own_) return twin_ != nullptr ? twin_->Install(kind, provider) : WSAEINVAL;
  GUID guid = provider.guid;
  std::vector<WSAPROTOCOL_INFOW> entries = provider.entries;
  INT reason = 0;
  return Error(WSCInstallProvider(&guid, provider.path.c_str(), entries.data(),
                                  static_cast<DWORD>(entries.size()), &reason),
               reason);
}

int WinsockMachine::Deinstall(Kind kind, const GUID& provider) {
  if (kind != own_) return twin_ != nullptr ? twin_->Deinstall(kind, provider) : WSAEINVAL;
  GUID guid = provider;
  INT reason = 0;
  return Error(WSCDeinstallProvider(&guid, &reason), reason);
}

int WinsockMachine::WriteOrder(Kind kind, const std::vector<DWORD>& ids) {
  if (kind != own_) return twin_ != nullptr ? twin_->WriteOrder(kind, ids) : WSAEINVAL;
  std::vector<DWORD> order = ids;
  return WSCWriteProviderOrder(order.data(), static_cast<DWORD>(order.size()));
}

int WinsockMachine::PermitCategories(const std::wstring& program, DWORD permitted) {
  INT reason = 0;
  DWORD previous = 0;
  return Error(WSCSetApplicationCategory(program.c_str(), static_cast<DWORD>(program.size()),
                                         nullptr, 0, permitted, &previous, &reason),
               reason);
}

}  // namespace setup
