#include "client/region_server.h"

#include <winsock2.h>
//
#include <windows.h>

#include <cstring>

#include "common/named_mutex.h"

namespace client {
namespace {

using moru_vyr::lsp::kRestrictionMutexName;
using moru_vyr::lsp::kRestrictionRegionName;
using moru_vyr::lsp::RestrictionRegion;

constexpr DWORD kRetryMs = 20;

bool LockWithin(common::NamedMutex* mutex, DWORD wait_ms) {
  const DWORD start = GetTickCount();
  while (!mutex->try_lock()) {
    if (GetTickCount() - start >= wait_ms) return false;
    Sleep(kRetryMs);
  }
  return true;
}

}  // namespace

std::string RegionServer::Publish(const RestrictionRegion& region, unsigned wait_ms) {
  // The region's own object would wait without end. The mutex is recursive: taking it here
  // first bounds that wait.
  common::NamedMutex mutex(kRestrictionMutexName);
  if (!mutex.exists()) return std::string("cannot make the mutex ") + kRestrictionMutexName;
  if (!LockWithin(&mutex, wait_ms)) {
    return std::string("another process holds ") + kRestrictionMutexName + " since " +
           std::to_string(wait_ms) + " ms";
  }
  if (!owner_) {
    owner_ = std::make_unique<common::Shared_mem_owner>(
        kRestrictionRegionName, sizeof(RestrictionRegion), kRestrictionMutexName, false);
  }
  void* const record = owner_->Open(common::kOpenForWriting, true);
  if (record != nullptr) std::memcpy(record, &region, sizeof region);
  owner_->Close();
  mutex.unlock();
  if (record != nullptr) return "";
  owner_.reset();
  return std::string("cannot write ") + kRestrictionRegionName +
         ": it cannot be made, or a program of another version holds it with another layout";
}

}  // namespace client
