#include "owners.h"

#include <winternl.h>

#include <unordered_map>

#include "not_started.h"
#include "startup.h"

namespace winsock_host {
namespace {

using ShutdownQuery = BOOLEAN(NTAPI*)();

struct OwnerState {
  SRWLOCK lock = SRWLOCK_INIT;  // guards owners; a leaf
  std::unordered_map<SOCKET, const Provider*> owners;
  const ShutdownQuery shutdown_in_progress =
      reinterpret_cast<ShutdownQuery>(reinterpret_cast<void*>(
          GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
};
OwnerState& TheOwnerState() {
  static OwnerState& state =
      *new OwnerState;  // never destroyed: threads outlive static destructors
  return state;
}

}  // namespace

OwnersLock::OwnersLock() : held_(true) {
  OwnerState& state = TheOwnerState();
  if (state.shutdown_in_progress != nullptr && state.shutdown_in_progress()) {
    held_ = TryAcquireSRWLockExclusive(&state.lock) != FALSE;
  } else {
    AcquireSRWLockExclusive(&state.lock);
  }
}

OwnersLock::~OwnersLock() {
  if (held_) ReleaseSRWLockExclusive(&TheOwnerState().lock);
}

const Provider& OwnerOf(SOCKET s) {
  const OwnersLock lock;
  if (!lock.held()) return ProviderOfStrangers();
  const auto& owners = TheOwnerState().owners;
  const auto found = owners.find(s);
  return found == owners.end() ? ProviderOfStrangers() : *found->second;
}

void Own(SOCKET s, const Provider& provider) {
  const OwnersLock lock;
  if (lock.held()) TheOwnerState().owners[s] = &provider;
}

const Provider* Disown(SOCKET s) {
  const OwnersLock lock;
  if (!lock.held()) return nullptr;
  auto& owners = TheOwnerState().owners;
  const auto found = owners.find(s);
  if (found == owners.end()) return nullptr;
  const Provider* owner = found->second;
  owners.erase(found);
  return owner;
}

void DisownAll() {
  const OwnersLock lock;
  if (lock.held()) TheOwnerState().owners.clear();
}

const Provider& ProviderOfStrangers() {
  return IsStarted() ? DirectProvider() : RefusingProvider();
}

}  // namespace winsock_host
