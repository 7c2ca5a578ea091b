#include "start/gate.h"

#include <utility>

#include "common/log.h"
#include "common/text.h"

namespace moru_vyr::lsp {
namespace {

constexpr char kGateMutex[] = "{BA3793BB-FB18-40DF-8C89-FA7C0159FADC}_single_mutex";
constexpr char kGateLock[] = "{CF3126B6-1F08-4D9B-AF1B-D2F5D3A458CB}_single_lock";

struct Gate {
  bool checked = false;
  bool can_hook = false;
  SingleInstanceLock holder;
};

// Never destroyed: the platform closes the mutex when the process is over, and not before.
Gate& GetGate() {
  static Gate& gate = *new Gate;
  return gate;
}

SingleInstanceLock TakeGate() {
  const unsigned long process_id = GetCurrentProcessId();
  char mutex_name[common::kBoundedTextSize];
  char lock_name[common::kBoundedTextSize];
  common::FormatBounded(mutex_name, "%s_%lu", kGateMutex, process_id);
  common::FormatBounded(lock_name, "%s_%lu", kGateLock, process_id);
  return SingleInstanceLock(mutex_name, lock_name);
}

}  // namespace

SingleInstanceLock::SingleInstanceLock(const char* mutex_name, const char* lock_name)
    : guard_(std::make_shared<common::NamedMutex>(lock_name)) {
  const common::NamedMutexGuard hold(guard_.get(), false);
  const common::UniqueHandle taken(OpenMutexA(SYNCHRONIZE, FALSE, mutex_name));
  if (taken) return;
  // Where this fails, the process counts as hooked already and stays as it is.
  mutex_.Reset(CreateMutexA(nullptr, TRUE, mutex_name));
}

bool CheckCanHook(bool want) noexcept {
  if (!want) return false;
  try {
    Gate& gate = GetGate();
    if (gate.checked) return gate.can_hook;
    gate.checked = true;
    SingleInstanceLock attempt = TakeGate();
    if (attempt.owns()) {
      common::LspTrace("CheckCanHook, I am the first and can hook");
      std::swap(attempt, gate.holder);
      gate.can_hook = true;
    } else {
      common::LspTrace("CheckCanHook, someone has hooked and not hook");
      gate.can_hook = false;
    }
    return gate.can_hook;
  } catch (...) {
    return false;
  }
}

}  // namespace moru_vyr::lsp
