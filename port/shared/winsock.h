// Where Winsock's own dispatch stands: the plain socket calls go through the call table of the
// provider that made the socket.
//
// By default that is the rendition's base provider. With the catalogue in use, the first socket
// of a protocol starts the first catalogue entry that serves it: its provider's module is
// loaded, its WSPStartup called once, and its table serves every later socket of that entry.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <atomic>
#include <memory>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

namespace port {

// The providers that one process has started, and which of them made which socket.
class SocketLayers {
 public:
  SocketLayers();
  ~SocketLayers();
  SocketLayers(const SocketLayers&) = delete;
  SocketLayers& operator=(const SocketLayers&) = delete;

  struct Started {
    WSAPROTOCOL_INFOW entry;
    WSPPROC_TABLE table;
  };

  // True: sockets made from now on go by the catalogue. Forgets what was started before, so
  // that the next socket starts its provider anew; sockets made before keep their tables.
  void UseCatalogue(bool use);

  // The started provider for a new socket; starts it when it is the first. Null with *error
  // set, or with *error 0 where the base provider serves.
  std::shared_ptr<const Started> ForNewSocket(int family, int type, int protocol, int* error);

  // The table that serves a socket: its own provider's, else the base provider's, which knows
  // best whether the handle means anything.
  const WSPPROC_TABLE& TableOf(SOCKET s);

  void Remember(SOCKET s, std::shared_ptr<const Started> started);
  std::shared_ptr<const Started> Forget(SOCKET s);
  std::shared_ptr<const Started> Of(SOCKET s);

 private:
  std::shared_ptr<const Started> StartEntry(const WSAPROTOCOL_INFOW& entry, int* error);

  std::atomic<bool> use_catalogue_{false};
  std::atomic<bool> any_layered_{false};                 // false: TableOf need not look
  CRITICAL_SECTION start_lock_;                          // held across WSPStartup
  std::vector<std::shared_ptr<const Started>> started_;  // under start_lock_
  std::vector<std::shared_ptr<const Started>> kept_;     // tables stay valid for TableOf's callers
  std::shared_mutex sockets_lock_;
  std::unordered_map<SOCKET, std::shared_ptr<const Started>> sockets_;
};

// For the calling thread's process.
void UseCatalogue(bool use);

// While one of these lives on a thread, sockets that the thread makes go straight to the base
// provider: for actors that are not the game, and for what a base provider does itself.
class BypassLayers {
 public:
  BypassLayers();
  ~BypassLayers();
  BypassLayers(const BypassLayers&) = delete;
  BypassLayers& operator=(const BypassLayers&) = delete;
};

}  // namespace port
