// Implements Winsock's dispatch: the plain socket calls go through the call table of the provider
// that created the socket.
//
// By default that is the backend's base provider. With the catalogue in use, the first socket of a
// protocol starts the first catalogue entry that serves it: the provider's module is loaded, its
// WSPStartup is called once, and its table serves every later socket of that entry.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <atomic>
#include <memory>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

namespace port {

// The providers that one process has started, and which of them created which socket.
class SocketLayers {
 public:
  SocketLayers();
  ~SocketLayers();
  SocketLayers(const SocketLayers&) = delete;
  SocketLayers& operator=(const SocketLayers&) = delete;

  struct Started {
    WSAPROTOCOL_INFOW entry;
    WSPPROC_TABLE table;
    HMODULE module;
  };

  // If true, sockets created from now on use the catalogue. Forgets the providers that were
  // started, so the next socket starts its provider again; existing sockets keep their tables.
  void UseCatalogue(bool use);

  // WSAStartup and WSACleanup, counted. The last cleanup calls WSPCleanup of each started provider
  // and frees its module as often as it was loaded here; the next socket starts the provider again.
  // Between the last cleanup and the next start, calls fail with 10093. A process that has never
  // called WSAStartup is served all the same.
  void StartUp();
  int CleanUp();  // 0, or the error
  bool ended() const { return ended_; }
  void AwaitStartLock();  // for inet_ntoa, if DispatchManners ask for it

  // The provider for a new socket; starts it for the first one. Null with *error set, or with
  // *error 0 if the base provider is to serve the socket.
  std::shared_ptr<const Started> ForNewSocket(int family, int type, int protocol, int* error);

  // The table that serves a socket: its provider's, or else the base provider's, which reports an
  // invalid handle.
  const WSPPROC_TABLE& TableOf(SOCKET s);

  void Remember(SOCKET s, std::shared_ptr<const Started> started);
  std::shared_ptr<const Started> Forget(SOCKET s);
  std::shared_ptr<const Started> Of(SOCKET s);

 private:
  std::shared_ptr<const Started> StartEntry(const WSAPROTOCOL_INFOW& entry, int* error);
  std::shared_ptr<const Started> Keep(std::shared_ptr<const Started> fresh);

  std::atomic<bool> use_catalogue_{false};
  int startups_ = 0;  // under start_lock_
  std::atomic<bool> ended_{false};
  std::atomic<bool> any_layered_{false};                 // false: TableOf need not look
  CRITICAL_SECTION start_lock_;                          // held across WSPStartup
  std::vector<std::shared_ptr<const Started>> started_;  // under start_lock_
  std::vector<std::shared_ptr<const Started>> kept_;     // tables stay valid for TableOf's callers
  std::shared_mutex sockets_lock_;
  std::unordered_map<SOCKET, std::shared_ptr<const Started>> sockets_;
};

// For the calling thread's process.
void UseCatalogue(bool use);

// The behaviour of the dispatch where Winsock's is not specified. Holds for all processes.
struct DispatchManners {
  // True: when the last cleanup calls the providers, Winsock's own calls already fail with 10093.
  // False: they still work then.
  bool ends_before_its_providers = false;
  // True: a provider is started once, with the first of its entries that is used, and its table
  // serves all of them. False: each entry is started separately.
  bool starts_once_per_provider = false;
  // True: inet_ntoa waits for the lock that starts and cleanups hold.
  bool text_takes_the_start_lock = false;
};
void SetDispatchManners(const DispatchManners& manners);

// Whether the calling thread holds, or waits for, the lock that starts and cleanups take. A thread
// that is terminated there never releases the lock, as on Windows, and no provider can prevent it.
bool IsInsideDispatch();

// While one of these exists on a thread, sockets that the thread creates use the base provider
// directly: for actors other than the game, and for the base provider's own sockets.
class BypassLayers {
 public:
  BypassLayers();
  ~BypassLayers();
  BypassLayers(const BypassLayers&) = delete;
  BypassLayers& operator=(const BypassLayers&) = delete;
};

}  // namespace port
