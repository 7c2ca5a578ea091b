#include "port/shared/backend.h"
#include "port/shared/catalogue.h"
#include "port/shared/faults.h"
#include "port/shared/process.h"
#include "port/shared/text.h"

namespace port {
namespace {

int WSPAPI UnusedUpcall() { return 0; }

WSPUPCALLTABLE Upcalls() {
  WSPUPCALLTABLE table;
  std::fill(std::begin(table.entries), std::end(table.entries), &UnusedUpcall);
  return table;
}

// Zero matches any entry; a hidden entry (chain length 0) matches nothing.
bool Serves(const WSAPROTOCOL_INFOW& entry, int family, int type, int protocol) {
  const bool protocol_fits =
      protocol == 0 || entry.iProtocol == protocol ||
      (protocol > entry.iProtocol && protocol <= entry.iProtocol + entry.iProtocolMaxOffset);
  return entry.ProtocolChain.ChainLen != LAYERED_PROTOCOL &&
         (family == 0 || entry.iAddressFamily == family) &&
         (type == 0 || entry.iSocketType == type) && protocol_fits;
}

std::atomic<bool> ends_before_its_providers{false};
std::atomic<bool> starts_once_per_provider{false};
std::atomic<bool> text_takes_the_start_lock{false};

// A layered entry is started through the first provider of its chain, which is its own.
LPWSPSTARTUP FindStartup(const WSAPROTOCOL_INFOW& entry, HMODULE* module) {
  const std::wstring path = Expand(ProviderPath(entry.ProviderId));
  *module = path.empty() ? nullptr : LoadLibraryW(path.c_str());
  if (!*module) return nullptr;
  FARPROC function = GetProcAddress(*module, "WSPStartup");
  return reinterpret_cast<LPWSPSTARTUP>(reinterpret_cast<void*>(function));
}

bool ServesAlso(const WSAPROTOCOL_INFOW& started, const WSAPROTOCOL_INFOW& entry) {
  return starts_once_per_provider ? started.ProviderId == entry.ProviderId
                                  : started.dwCatalogEntryId == entry.dwCatalogEntryId;
}

bool Complete(const WSPPROC_TABLE& table) {
  FARPROC entries[sizeof table / sizeof(FARPROC)];
  std::memcpy(entries, &table, sizeof table);
  return std::find(std::begin(entries), std::end(entries), nullptr) == std::end(entries);
}

class SectionGuard {
 public:
  explicit SectionGuard(CRITICAL_SECTION* section) : section_(section) {
    ++CurrentThreadState().dispatch_sections;
    EnterCriticalSection(section_);
  }
  ~SectionGuard() {
    LeaveCriticalSection(section_);
    --CurrentThreadState().dispatch_sections;
  }
  SectionGuard(const SectionGuard&) = delete;
  SectionGuard& operator=(const SectionGuard&) = delete;

 private:
  CRITICAL_SECTION* const section_;
};

}  // namespace

SocketLayers::SocketLayers() { InitializeCriticalSection(&start_lock_); }
SocketLayers::~SocketLayers() { DeleteCriticalSection(&start_lock_); }

void SocketLayers::UseCatalogue(bool use) {
  SectionGuard hold(&start_lock_);
  started_.clear();
  use_catalogue_ = use;
}

void SocketLayers::StartUp() {
  SectionGuard hold(&start_lock_);
  ++startups_;
  ended_ = false;
}

int SocketLayers::CleanUp() {
  SectionGuard hold(&start_lock_);
  if (startups_ == 0) return WSANOTINITIALISED;
  if (--startups_ > 0) return 0;
  if (ends_before_its_providers) ended_ = true;
  for (const auto& one : started_) {
    INT ignored = 0;
    one->table.lpWSPCleanup(&ignored);
    FreeLibrary(one->module);
  }
  started_.clear();
  ended_ = true;
  return 0;
}

void SocketLayers::AwaitStartLock() {
  if (!text_takes_the_start_lock) return;
  SectionGuard hold(&start_lock_);
}

std::shared_ptr<const SocketLayers::Started> SocketLayers::StartEntry(
    const WSAPROTOCOL_INFOW& entry, int* error) {
  for (const auto& one : started_)
    if (ServesAlso(one->entry, entry)) return one;
  auto fresh = std::make_shared<Started>();
  fresh->entry = entry;
  fresh->table = {};
  *error = WSAEPROVIDERFAILEDINIT;
  const LPWSPSTARTUP startup = FindStartup(entry, &fresh->module);
  if (!startup) return nullptr;
  WSPDATA data = {};
  const int result = startup(MAKEWORD(2, 2), &data, &fresh->entry, Upcalls(), &fresh->table);
  if (result != 0) {
    *error = result;
    return nullptr;
  }
  if (!Complete(fresh->table)) {
    *error = WSAEINVALIDPROCTABLE;
    return nullptr;
  }
  *error = 0;
  started_.push_back(Keep(std::move(fresh)));
  any_layered_ = true;
  return started_.back();
}

// Reuses the record of an earlier start that returned the same table, because a process may start
// Winsock a hundred times.
std::shared_ptr<const SocketLayers::Started> SocketLayers::Keep(
    std::shared_ptr<const Started> fresh) {
  for (const auto& one : kept_)
    if (one->module == fresh->module &&
        std::memcmp(&one->entry, &fresh->entry, sizeof one->entry) == 0 &&
        std::memcmp(&one->table, &fresh->table, sizeof one->table) == 0)
      return one;
  kept_.push_back(fresh);
  return fresh;
}

std::shared_ptr<const SocketLayers::Started> SocketLayers::ForNewSocket(int family, int type,
                                                                        int protocol, int* error) {
  *error = 0;
  if (!use_catalogue_ || CurrentThreadState().bypass_layers > 0) return nullptr;
  for (const WSAPROTOCOL_INFOW& entry : Catalogue()) {
    if (!Serves(entry, family, type, protocol)) continue;
    SectionGuard hold(&start_lock_);
    return StartEntry(entry, error);
  }
  return nullptr;  // no entry serves it: the base provider returns the platform's error
}

const WSPPROC_TABLE& SocketLayers::TableOf(SOCKET s) {
  if (!any_layered_) return BaseProviderTable();
  std::shared_lock hold(sockets_lock_);
  const auto at = sockets_.find(s);
  return at == sockets_.end() ? BaseProviderTable() : at->second->table;  // kept_ keeps it valid
}

std::shared_ptr<const SocketLayers::Started> SocketLayers::Of(SOCKET s) {
  if (!any_layered_) return nullptr;
  std::shared_lock hold(sockets_lock_);
  auto at = sockets_.find(s);
  return at == sockets_.end() ? nullptr : at->second;
}

void SocketLayers::Remember(SOCKET s, std::shared_ptr<const Started> started) {
  if (!started || s == INVALID_SOCKET) return;
  std::unique_lock hold(sockets_lock_);
  sockets_[s] = std::move(started);
}

std::shared_ptr<const SocketLayers::Started> SocketLayers::Forget(SOCKET s) {
  if (!any_layered_) return nullptr;
  std::unique_lock hold(sockets_lock_);
  auto at = sockets_.find(s);
  if (at == sockets_.end()) return nullptr;
  auto started = std::move(at->second);
  sockets_.erase(at);
  return started;
}

void UseCatalogue(bool use) { CurrentProcess().layers.UseCatalogue(use); }

void SetDispatchManners(const DispatchManners& manners) {
  ends_before_its_providers = manners.ends_before_its_providers;
  starts_once_per_provider = manners.starts_once_per_provider;
  text_takes_the_start_lock = manners.text_takes_the_start_lock;
}

bool IsInsideDispatch() { return CurrentThreadState().dispatch_sections > 0; }

BypassLayers::BypassLayers() { ++CurrentThreadState().bypass_layers; }
BypassLayers::~BypassLayers() { --CurrentThreadState().bypass_layers; }

}  // namespace port
