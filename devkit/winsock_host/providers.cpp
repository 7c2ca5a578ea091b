#include "providers.h"

#include <atomic>
#include <bit>
#include <cstring>

#include "catalogue.h"
#include "patch.h"
#include "report.h"
#include "upcalls.h"

namespace winsock_host {
namespace {

constexpr size_t kMaxEntries = 128;
constexpr size_t kTableEntries = sizeof(WSPPROC_TABLE) / sizeof(void*);
static_assert(kTableEntries == 30);

struct ProviderState {
  ProviderState() { InitializeCriticalSection(&start_lock); }

  Provider direct = {};
  // Per catalogue index. Written under start_lock; read without it.
  std::atomic<const Provider*> started[kMaxEntries] = {};
  CRITICAL_SECTION start_lock;  // one start or cleanup at a time, as Winsock does it
  bool start_each_entry = false;
  bool keep_loaded = false;
};
ProviderState& TheProviderState() {
  static ProviderState& state =
      *new ProviderState;  // never destroyed: threads outlive static destructors
  return state;
}

class StartLock {
 public:
  StartLock() { EnterCriticalSection(&TheProviderState().start_lock); }
  ~StartLock() { LeaveCriticalSection(&TheProviderState().start_lock); }
  StartLock(const StartLock&) = delete;
  StartLock& operator=(const StartLock&) = delete;
};

// Calls `visit(entry)` for each of the thirty pointers of a table.
template <typename Visit>
void ForEachEntry(const WSPPROC_TABLE& table, Visit visit) {
  void* entries[kTableEntries];
  std::memcpy(entries, &table, sizeof(entries));
  for (void* entry : entries) visit(entry);
}

bool IsComplete(const WSPPROC_TABLE& table) {
  bool complete = true;
  ForEachEntry(table, [&](void* entry) { complete = complete && entry != nullptr; });
  return complete;
}

uint32_t EntriesIn(HMODULE module, const WSPPROC_TABLE& table) {
  uint32_t mask = 0;
  uint32_t bit = 1;
  ForEachEntry(table, [&](void* entry) {
    if (entry != nullptr && IsInModule(module, entry)) mask |= bit;
    bit <<= 1;
  });
  return mask;
}

LPWSPSTARTUP StartFunctionOf(HMODULE module) {
  return reinterpret_cast<LPWSPSTARTUP>(
      reinterpret_cast<void*>(GetProcAddress(module, "WSPStartup")));
}

int Start(HMODULE module, const CatalogueEntry& entry, Provider* provider) {
  const LPWSPSTARTUP start = StartFunctionOf(module);
  if (start == nullptr) return WSAEPROVIDERFAILEDINIT;
  WSPDATA data = {};
  WSAPROTOCOL_INFOW info = entry.info;
  const int result = start(MAKEWORD(2, 2), &data, &info, UpcallTable(), &provider->table);
  if (entry.layered) provider->replaced = EntriesIn(module, provider->table);
  if (result != 0) return result;
  return IsComplete(provider->table) ? 0 : WSAEINVALIDPROCTABLE;
}

// True if it is no longer in memory.
bool Unload(HMODULE module) {
  if (TheProviderState().keep_loaded) return false;
  FreeLibrary(module);
  HMODULE found = nullptr;
  constexpr DWORD kFlags =
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  return !GetModuleHandleExW(kFlags, reinterpret_cast<LPCWSTR>(module), &found);
}

int LoadAndStart(const CatalogueEntry& entry, Provider* provider) {
  wchar_t path[kConfigPathChars] = {};
  ExpandEnvironmentStringsW(ModulePath(entry.info), path, kConfigPathChars);
  const HMODULE module = LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (module == nullptr) return WSAEPROVIDERFAILEDINIT;
  PatchNewModules();
  const int result = Start(module, entry, provider);
  if (result == 0) {
    provider->module = module;
  } else {
    Unload(module);
  }
  return result;
}

// The started provider of another entry with the same GUID, if one start serves them all.
const Provider* StartedUnder(const GUID& guid) {
  if (TheProviderState().start_each_entry) return nullptr;
  for (const std::atomic<const Provider*>& slot : TheProviderState().started) {
    const Provider* provider = slot.load(std::memory_order_relaxed);
    if (provider != nullptr && provider->info.ProviderId == guid) return provider;
  }
  return nullptr;
}

// The table's start, with what came of it in the report. Under start_lock.
const Provider* StartEntry(size_t index, int* error) {
  const CatalogueEntry& entry = Catalogue()[index];
  auto* provider = new Provider{};
  if (const Provider* same = StartedUnder(entry.info.ProviderId)) {
    *provider = *same;
    provider->module = nullptr;
  } else {
    const int result = LoadAndStart(entry, provider);
    RecordStart({entry.info.dwCatalogEntryId, entry.info.iProtocol, result,
                 static_cast<uint32_t>(std::popcount(provider->replaced))});
    if (result != 0) {
      delete provider;
      *error = result;
      return nullptr;
    }
  }
  provider->info = entry.info;
  TheProviderState().started[index].store(provider, std::memory_order_release);
  return provider;
}

void CleanUp(const Provider& provider) {
  const DWORD begin = GetTickCount();
  int error = 0;
  const int result = provider.table.lpWSPCleanup(&error);
  const DWORD elapsed_ms = GetTickCount() - begin;
  CountCall(SeenByLibrary(provider, kCleanup), kCleanup, result == SOCKET_ERROR, error, 0);
  const bool unloaded = Unload(provider.module);
  RecordCleanup({provider.info.dwCatalogEntryId, result, elapsed_ms, unloaded ? 1U : 0U});
}

}  // namespace

bool PrepareProviders(const HostConfig& config) {
  ProviderState& state = TheProviderState();
  state.start_each_entry = config.start_each_entry != 0;
  state.keep_loaded = config.keep_loaded != 0;
  const HMODULE module = LoadLibraryExW(config.base, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (module == nullptr) return false;
  NeverPatch(module);
  const LPWSPSTARTUP start = StartFunctionOf(module);
  if (start == nullptr) return false;
  WSPDATA data = {};
  WSAPROTOCOL_INFOW info = {};
  if (start(MAKEWORD(2, 2), &data, &info, UpcallTable(), &state.direct.table) != 0) return false;
  if (!IsComplete(state.direct.table)) return false;
  // Only its table is needed: the starts that the program causes keep the provider running.
  int error = 0;
  return state.direct.table.lpWSPCleanup(&error) == 0;
}

const Provider& DirectProvider() { return TheProviderState().direct; }

const Provider* ProviderForNewSocket(int family, int type, int protocol, int* error) {
  ProviderState& state = TheProviderState();
  const int index = FindEntry(family, type, protocol);
  if (index < 0 || index >= static_cast<int>(kMaxEntries)) return &state.direct;
  std::atomic<const Provider*>& slot = state.started[index];
  if (const Provider* provider = slot.load(std::memory_order_acquire)) return provider;
  const StartLock lock;
  const Provider* provider = slot.load(std::memory_order_acquire);
  if (provider == nullptr) provider = StartEntry(static_cast<size_t>(index), error);
  return provider;
}

const Provider* StartedProvider(DWORD catalog_id) {
  for (const std::atomic<const Provider*>& slot : TheProviderState().started) {
    const Provider* provider = slot.load(std::memory_order_acquire);
    if (provider != nullptr && provider->info.dwCatalogEntryId == catalog_id) return provider;
  }
  return nullptr;
}

void CleanUpProviders() {
  const StartLock lock;
  for (std::atomic<const Provider*>& slot : TheProviderState().started) {
    const Provider* provider = slot.exchange(nullptr, std::memory_order_acq_rel);
    if (provider != nullptr && provider->module != nullptr) CleanUp(*provider);
  }
}

}  // namespace winsock_host
