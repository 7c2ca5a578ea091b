#include "providers.h"

#include <winternl.h>

#include <atomic>
#include <bit>
#include <cstring>
#include <unordered_map>

#include "catalogue.h"
#include "patch.h"
#include "report.h"
#include "upcalls.h"

namespace winsock_host {
namespace {

constexpr size_t kMaxEntries = 16;
constexpr size_t kTableEntries = sizeof(WSPPROC_TABLE) / sizeof(void*);
static_assert(kTableEntries == 30);

using StartFunction = LPWSPSTARTUP;
using ShutdownQuery = BOOLEAN(NTAPI*)();

struct State {
  State() { InitializeCriticalSection(&start_lock); }

  Provider direct = {};
  // Per catalogue index. Written under start_lock; read without it.
  std::atomic<const Provider*> started[kMaxEntries] = {};
  CRITICAL_SECTION start_lock;         // one start at a time, as Winsock does it
  SRWLOCK owners_lock = SRWLOCK_INIT;  // guards owners; a leaf
  std::unordered_map<SOCKET, const Provider*> owners;
  ShutdownQuery shutdown_in_progress = nullptr;
};
State& TheState() {
  static State& state = *new State;  // never destroyed: threads outlive static destructors
  return state;
}

// At process end the other threads are gone, and one of them may have held the lock. The calls
// that still come (from static destructors) do without it rather than hang.
class OwnersLock {
 public:
  OwnersLock() {
    State& state = TheState();
    if (state.shutdown_in_progress != nullptr && state.shutdown_in_progress()) {
      held_ = TryAcquireSRWLockExclusive(&state.owners_lock) != FALSE;
    } else {
      AcquireSRWLockExclusive(&state.owners_lock);
      held_ = true;
    }
  }
  ~OwnersLock() {
    if (held_) ReleaseSRWLockExclusive(&TheState().owners_lock);
  }
  OwnersLock(const OwnersLock&) = delete;
  OwnersLock& operator=(const OwnersLock&) = delete;
  bool held() const { return held_; }

 private:
  bool held_ = false;
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

int LoadAndStart(const CatalogueEntry& entry, Provider* provider) {
  const wchar_t* path = ModulePath(entry.info);
  HMODULE module = LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (module == nullptr) return WSAEPROVIDERFAILEDINIT;
  PatchNewModules();
  const auto start = reinterpret_cast<StartFunction>(
      reinterpret_cast<void*>(GetProcAddress(module, "WSPStartup")));
  if (start == nullptr) return WSAEPROVIDERFAILEDINIT;
  provider->info = entry.info;
  WSPDATA data = {};
  WSAPROTOCOL_INFOW info = entry.info;
  const int result = start(MAKEWORD(2, 2), &data, &info, UpcallTable(), &provider->table);
  if (entry.layered) provider->replaced = EntriesIn(module, provider->table);
  if (result != 0) return result;
  return IsComplete(provider->table) ? 0 : WSAEINVALIDPROCTABLE;
}

// The table's start, with what came of it in the report. Never called twice at once.
const Provider* StartEntry(size_t index, int* error) {
  const CatalogueEntry& entry = Catalogue()[index];
  auto* provider = new Provider{};
  const int result = LoadAndStart(entry, provider);
  RecordStart({entry.info.dwCatalogEntryId, entry.info.iProtocol, result,
               static_cast<uint32_t>(std::popcount(provider->replaced))});
  if (result != 0) {
    delete provider;
    *error = result;
    return nullptr;
  }
  TheState().started[index].store(provider, std::memory_order_release);
  return provider;
}

}  // namespace

bool StartDirectProvider(const HostConfig& config) {
  State& state = TheState();
  state.shutdown_in_progress = reinterpret_cast<ShutdownQuery>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
  HMODULE module = LoadLibraryExW(config.base, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (module == nullptr) return false;
  NeverPatch(module);
  const auto start = reinterpret_cast<StartFunction>(
      reinterpret_cast<void*>(GetProcAddress(module, "WSPStartup")));
  if (start == nullptr) return false;
  WSPDATA data = {};
  WSAPROTOCOL_INFOW info = {};
  return start(MAKEWORD(2, 2), &data, &info, UpcallTable(), &state.direct.table) == 0 &&
         IsComplete(state.direct.table);
}

const Provider& DirectProvider() { return TheState().direct; }

const Provider* ProviderForNewSocket(int family, int type, int protocol, int* error) {
  State& state = TheState();
  const int index = FindEntry(family, type, protocol);
  if (index < 0 || index >= static_cast<int>(kMaxEntries)) return &state.direct;
  std::atomic<const Provider*>& slot = state.started[index];
  if (const Provider* provider = slot.load(std::memory_order_acquire)) return provider;
  EnterCriticalSection(&state.start_lock);
  const Provider* provider = slot.load(std::memory_order_acquire);
  if (provider == nullptr) provider = StartEntry(static_cast<size_t>(index), error);
  LeaveCriticalSection(&state.start_lock);
  return provider;
}

const Provider& OwnerOf(SOCKET s) {
  State& state = TheState();
  OwnersLock lock;
  if (!lock.held()) return state.direct;
  const auto found = state.owners.find(s);
  return found == state.owners.end() ? state.direct : *found->second;
}

void Own(SOCKET s, const Provider& provider) {
  State& state = TheState();
  if (s == INVALID_SOCKET || &provider == &state.direct) return;
  OwnersLock lock;
  if (lock.held()) state.owners[s] = &provider;
}

const Provider* Disown(SOCKET s) {
  State& state = TheState();
  OwnersLock lock;
  if (!lock.held()) return nullptr;
  const auto found = state.owners.find(s);
  if (found == state.owners.end()) return nullptr;
  const Provider* owner = found->second;
  state.owners.erase(found);
  return owner;
}

void CleanUpProviders() {
  State& state = TheState();
  EnterCriticalSection(&state.start_lock);
  for (std::atomic<const Provider*>& slot : state.started) {
    const Provider* provider = slot.exchange(nullptr, std::memory_order_acq_rel);
    if (provider == nullptr) continue;
    int error = 0;
    const int result = provider->table.lpWSPCleanup(&error);
    CountCall(SeenByLibrary(*provider, kCleanup), kCleanup, result == SOCKET_ERROR, error, 0);
  }
  LeaveCriticalSection(&state.start_lock);
}

}  // namespace winsock_host
