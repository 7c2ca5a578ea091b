// What this process mends of the behaviour that docs/oddities.md lists. The client program asks for
// it, game by game; where it asks for nothing, every answer here is no, and nothing is different.
//
// Chosen once while the provider starts, under the start-up lock; every thread reads it without a
// lock afterwards. Each question is asked in one place.
#pragma once
#include "abi/mending_formats.h"

namespace moru_vyr::lsp {

class Mending {
 public:
  constexpr Mending() noexcept = default;
  explicit Mending(const MendingRecord& record) noexcept : mended_(record.mended & kMendAll) {}

  // One side's end of sending is passed on as such; the other direction goes on to its own end.
  bool PassesOnHalfClose() const noexcept { return (mended_ & kMendHalfClose) != 0; }
  // A node that refuses, cannot be reached or closes early is a failed try, as a silent one is.
  bool LeavesFailedNode() const noexcept { return (mended_ & kMendFailedNode) != 0; }
  // A side that resets its connection, or refuses it, resets the other one too.
  bool PassesOnReset() const noexcept { return (mended_ & kMendReset) != 0; }
  // ConnectEx answers what the next provider answered.
  bool KeepsConnectExResult() const noexcept { return (mended_ & kMendConnectEx) != 0; }
  // A process that cleans up Winsock and starts it again is served as the first time.
  bool ServesAgain() const noexcept { return (mended_ & kMendRestart) != 0; }

  // A datagram socket that is connected exchanges datagrams with its peer, and names it.
  bool ConnectsDatagrams() const noexcept { return (mended_ & kMendConnectedDatagram) != 0; }
  // Each address that a datagram socket talks to has a loopback port of its own, which names it. A
  // socket can be connected to such a port only.
  bool GivesEachPeerAPort() const noexcept {
    return (mended_ & (kMendDatagramMatch | kMendConnectedDatagram)) != 0;
  }

  u32 bits() const noexcept { return mended_; }

 private:
  u32 mended_ = 0;
};

const Mending& GetMending() noexcept;

// Reads the record of the game in that place of the client's list. Waits at most half a second for
// the region's mutex; any failure means that nothing is mended.
void ReadMending(u32 place) noexcept;

}  // namespace moru_vyr::lsp
