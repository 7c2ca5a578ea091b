// Which of the oddities in docs/oddities.md this process mends. The client program asks for them,
// game by game; where it asks for nothing, every answer here is no, and nothing is different.
//
// Chosen once while the provider starts, under the start-up lock; every thread reads it without a
// lock afterwards. Each question is asked in one place.
#pragma once
#include "abi/mending_formats.h"
#include "abi/mending_names.h"

namespace moru_vyr::lsp {

// How long falling back waits; milliseconds.
struct FallbackTimes {
  u32 next_node_ms = 1000;
  u32 direct_ms = 1000;
  u32 node_rest_ms = 30'000;
};

class Mending {
 public:
  constexpr Mending() noexcept = default;
  explicit Mending(const MendingRecord& record) noexcept : mended_(record.mended & kMendKnown) {
    if (record.next_node_ms != 0) fallback_times_.next_node_ms = record.next_node_ms;
    if (record.direct_ms != 0) fallback_times_.direct_ms = record.direct_ms;
    if (record.node_rest_ms != 0) fallback_times_.node_rest_ms = record.node_rest_ms;
  }

  // One side's end of sending is passed on as such; the other direction goes on to its own end.
  bool PassesOnHalfClose() const noexcept { return (mended_ & kMendHalfClose) != 0; }
  // A node that refuses, cannot be reached or closes early is a failed try, as a silent one is.
  bool LeavesFailedNode() const noexcept { return (mended_ & kMendFailedNode) != 0; }
  // A node whose host sends a request for datagrams back, or to which none can be sent, is a failed
  // try at once.
  bool LeavesUnreachableNode() const noexcept { return LeavesFailedNode(); }
  // A side that resets its connection, or refuses it, resets the other one too.
  bool PassesOnReset() const noexcept { return (mended_ & kMendReset) != 0; }
  // A connect of the game waits until its server has been reached, and fails with the server's own
  // error.
  bool PostponesConnects() const noexcept { return (mended_ & kMendRefusal) != 0; }
  // ConnectEx answers what the next provider answered.
  bool KeepsConnectExResult() const noexcept { return (mended_ & kMendConnectEx) != 0; }
  // A process that cleans up Winsock and starts it again is served as the first time.
  bool ServesAgain() const noexcept { return (mended_ & kMendRestart) != 0; }
  // The next way is tried soon, beside those that have not answered yet, and a node that has failed
  // is passed over for a while.
  bool FallsBackFast() const noexcept { return (mended_ & kMendFallback) != 0; }
  const FallbackTimes& fallback_times() const noexcept { return fallback_times_; }

  // No thread of the host waits long for one of the client's mutexes, and the worker hardly at all.
  bool BoundsClientWaits() const noexcept { return Starts(); }
  // A process that ends with a cleanup of Winsock reports the end of what it still had open.
  bool ReportsItsEnd() const noexcept { return Starts(); }
  // What the game has sent before a cleanup of Winsock reaches its server.
  bool DeliversAtItsEnd() const noexcept { return Starts(); }
  // What the relay has no place to poll goes direct.
  bool KeepsToItsPlaces() const noexcept { return Starts(); }
  // A connect that failed leaves nothing behind for the next one from its port.
  bool ForgetsFailedConnects() const noexcept { return Starts(); }
  // While a buffer is full, its source is not polled.
  bool RestsWhileFull() const noexcept { return Starts() || Hastens(); }
  // Datagrams that wait for room are tried again by the timer, and none waits behind one that
  // cannot be sent.
  bool RetriesDatagrams() const noexcept { return Starts(); }
  // A log that may not grow any more takes no memory either.
  bool DropsLogPastItsTotal() const noexcept { return Starts(); }

  // Both ends of a relayed stream have the names that they would have without us.
  bool NamesAsWithoutUs() const noexcept { return (mended_ & kMendNames) != 0; }

  // A flow that has moved to another node is measured and reported anew there, hears the old node
  // out, and can move again.
  bool StartsAnewAfterSwitch() const noexcept { return (mended_ & kMendAfterSwitch) != 0; }

  // A datagram socket that is connected exchanges datagrams with its peer, and names it.
  bool ConnectsDatagrams() const noexcept { return (mended_ & kMendConnectedDatagram) != 0; }
  // A receive that completes later gets its source where the library sees the completion, and a
  // socket whose completions it cannot see is left direct.
  bool NamesLateSources() const noexcept { return (mended_ & kMendOverlappedDatagram) != 0; }
  // Each address that a datagram socket talks to has a loopback port of its own, which names it. A
  // socket can be connected to such a port only, and a late receive is known by nothing else.
  bool GivesEachPeerAPort() const noexcept {
    return (mended_ & (kMendDatagramMatch | kMendConnectedDatagram | kMendOverlappedDatagram)) != 0;
  }

  // Delays are averaged, a burst of probes is judged by its own answers once they can be back, and
  // a link that is younger than its windows does not count as dead.
  bool JudgesByAnswers() const noexcept { return (mended_ & kMendJudgement) != 0; }
  // … and the judge's settings that the client has left unset are such that a bad link is left soon
  // and a good one is kept.
  bool FillsUnsetSettings() const noexcept { return (mended_ & kMendJudgement) != 0; }

  // A stream is read in large pieces, each passed on before the next, until one comes short.
  bool ReadsLargePieces() const noexcept { return Hastens(); }
  // What a stream has no room for waits until the system says that there is room. Until then no
  // send is tried.
  bool SendsOnlyIntoRoom() const noexcept { return Hastens(); }
  // The system chooses the buffer sizes of the game's relayed connections.
  bool LeavesStreamBuffers() const noexcept { return Hastens(); }
  // A pass accepts the connections that wait, and not just one of them.
  bool AcceptsSeveral() const noexcept { return Hastens(); }
  // A datagram socket that has had one datagram at a time is read once a pass.
  bool ReadsAsManyAsExpected() const noexcept { return Hastens(); }
  // A probe of a burst leaves when it is due, and not at the next update.
  bool ProbesOnTime() const noexcept { return Hastens(); }

  u32 bits() const noexcept { return mended_; }

 private:
  bool Starts() const noexcept { return (mended_ & kMendStart) != 0; }
  bool Hastens() const noexcept { return (mended_ & kMendThroughput) != 0; }

  u32 mended_ = 0;
  FallbackTimes fallback_times_;
};

const Mending& GetMending() noexcept;

// In place of the client's, for a process that is configured otherwise.
void ReplaceMending(const Mending& mending) noexcept;

// For the waits before the game's place in the list is known: until ReadMending, BoundsClientWaits
// is true if any listed game asks for that. Does not wait itself.
void ReadWaitsOfAnyGame() noexcept;

// Reads the record of the game in that place of the client's list. Waits at most half a second for
// the region's mutex; any failure means that nothing is mended, except that waits stay bounded if
// any game asks for that and the mutex was not free.
void ReadMending(u32 place) noexcept;

}  // namespace moru_vyr::lsp
