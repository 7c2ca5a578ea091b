// Overlapped receives of datagram sockets, where the client asks for that to be mended: a receive
// that completes later gets its true source wherever the library sees the completion.
//
// It sees a completion routine, and a program that waits for an event and then asks for the result
// (WSAGetOverlappedResult). It sees nothing of what comes out of a completion port, and cannot know
// which sockets have one. So a receive that names a place for the source, but neither a routine nor
// an event (one with the lowest bit set is for ports, too), leaves its socket direct from then on:
// slower, but with the right sources. So does an overlapped structure that is used again before the
// result of its last receive has been asked for, and a process with more such receives at a
// time than there are places for.
//
// A socket that has already sent through the relay is detached from it, and connected to its peer
// directly if it is connected: what is in flight between the relay and the game is lost, and the
// server gets the next datagram from another address. A relay that went on would hand the game
// datagrams from an address that it does not know.
//
// A pending send needs nothing: its address is known by the port that it goes to (PeerPorts), and
// nothing is queued for it.
//
// Any thread; nothing throws. Where it is not mended, nothing here does anything.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

// One call of WSPRecvFrom. Made before the next provider is called.
class OverlappedReceive {
 public:
  // May leave the socket direct; `record`, the caller's copy, says so then. `allowed` is the answer
  // of IsAllowedRelay.
  OverlappedReceive(SocketRecord* record, bool allowed, sockaddr* from, LPINT from_size,
                    LPWSAOVERLAPPED overlapped,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE completion) noexcept;
  OverlappedReceive(const OverlappedReceive&) = delete;
  OverlappedReceive& operator=(const OverlappedReceive&) = delete;

  // What the next provider is to call: the game's routine, or ours, which calls it.
  LPWSAOVERLAPPED_COMPLETION_ROUTINE routine() const noexcept { return routine_; }
  // After the call. True if that settles the source; otherwise the caller restores it.
  bool End(int result, const INT* error) noexcept;

 private:
  u32 token_ = 0;
  u64 entry_ = 0;  // in the table
  bool left_direct_ = false;
  LPWSAOVERLAPPED_COMPLETION_ROUTINE routine_;
};

// Before another call that takes an overlapped structure, which may be null.
void NoteOverlappedUse(SocketRecord* record, const WSAOVERLAPPED* overlapped) noexcept;
// Before a socket is closed: its results will not be asked for again, but its routines will still
// run.
void ForgetReceives(const SocketRecord& record) noexcept;
// The same for all sockets.
void ForgetAllReceives() noexcept;

// Puts WSPGetOverlappedResult into the table, in place of the entry that is there.
void HookOverlappedResult(LPWSPPROC_TABLE table) noexcept;

}  // namespace moru_vyr::lsp
