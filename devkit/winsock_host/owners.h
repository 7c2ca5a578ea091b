// Which provider serves which socket.
//
// A socket belongs to a provider from the moment when the base provider has registered its handle
// under the catalogue entry of its creation (upcalls.h), until it is closed or Winsock has ended.
// All operations may be called from any thread.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "providers.h"

namespace winsock_host {

// Exclusive. Also taken to end a thread, which must not happen while that thread holds it.
//
// When the process ends, the other threads have ended, and one of them may have held the lock.
// Later calls (from static destructors) do not take it, because they would hang.
class OwnersLock {
 public:
  OwnersLock();
  ~OwnersLock();
  OwnersLock(const OwnersLock&) = delete;
  OwnersLock& operator=(const OwnersLock&) = delete;
  bool held() const { return held_; }

 private:
  bool held_;
};

// A socket without an owner is served by ProviderOfStrangers().
const Provider& OwnerOf(SOCKET s);
void Own(SOCKET s, const Provider& provider);
const Provider* Disown(SOCKET s);  // the owner that was recorded, or null
void DisownAll();

// Serves inherited sockets, those made before the host was loaded, and values that are not sockets:
// the direct provider, or one that refuses everything while Winsock is not started.
const Provider& ProviderOfStrangers();

}  // namespace winsock_host
