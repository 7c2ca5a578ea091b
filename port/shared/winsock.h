// Takes the place of Winsock's own dispatch: the plain socket calls go through the call table of
// the provider that made the socket.
//
// By default that is the backend's base provider. With the catalogue in use, the first socket
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
    HMODULE module;
  };

  // True: sockets made from now on use the catalogue. Forgets the providers that were started, so
  // that the next socket starts its provider again; existing sockets keep their tables.
  void UseCatalogue(bool use);

  // Start and end of Winsock: WSAStartup and WSACleanup, counted. The last cleanup calls WSPCleanup
  // of each started provider and frees its module as often as it was loaded here; the next socket
  // starts it again. In a process that has called WSAStartup once, calls answer 10093 from the last
  // cleanup to the next start; one that never has is served all the same.
  void StartUp();
  int CleanUp();  // 0, or the error
  bool ended() const { return ended_; }
  void AwaitStartLock();  // taken by inet_ntoa too, if DispatchManners say so

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

// How the dispatch behaves where Winsock promises nothing. For all processes.
struct DispatchManners {
  // True: when the last cleanup calls the providers, Winsock's own calls already answer 10093.
  // False: they still work then.
  bool ends_before_its_providers = false;
  // True: a provider is started once, with the first of its entries that is asked for, and the
  // table that it gives serves all of them. False: each entry is started by itself.
  bool starts_once_per_provider = false;
  // True: inet_ntoa waits for the lock that starts and cleanups hold.
  bool text_takes_the_start_lock = false;
};
void SetDispatchManners(const DispatchManners& manners);

// Whether the calling thread waits for, or holds, the lock that starts and cleanups take. A thread
// that is ended there keeps the lock for good, as on Windows, and no provider can prevent it.
bool IsInsideDispatch();

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
