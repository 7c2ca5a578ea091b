// Random games, servers, nodes and faults on datagram sockets, one world for each seed. At stake:
// each datagram that the game sent arrives at most once, unchanged, at the destination that it
// named, and is lost only if the network or one of our rules loses it; each datagram that the game
// receives has the address of the server that sent it.
//
// A failure prints its seed and the command that runs it again.
#include "tests/scenario/udp_swarm.h"
//
#include "engine/relay_mgr.h"
#include "port/shared/faults.h"

namespace {

using namespace udp_test;  // NOLINT

// --- networks without loss ----------------------------------------------------------------------

// Nodes refuse, lie, are silent or late; links and threads are slow in any order. Whatever happens
// to the node, everything that was sent arrives and is answered.
SCENARIO_F_SEEDS(UdpSwarm, NothingIsLostWithoutLosses, SwarmSeeds(30)) {
  SetAllLinks([this] { return AnyLink(); });
  a.Behaves(AnyNode());
  b.Behaves(AnyNode());
  world.ReuseSocketHandles(Chance(50));
  Begins();
  const bool slow = IsSlow(a.behaviour()) || IsSlow(b.behaviour());
  Run(6, 40, [slow](Player* player) { player->stays_ms = slow ? 13'000 : 2000; });
  ExpectAtMostOnce();
  ExpectNoneLost();
  ExpectNothingIsLeft();
  a.Behaves();
  b.Behaves();
  RunFor(100ms);
  SetAllLinks([] { return sim::LinkOptions{}; });
  ExpectANewSocketWorks();
}

// --- anything may break -------------------------------------------------------------------------

class UdpStorm : public UdpSwarm {
 protected:
  void FailAnyCall() {
    const char* const names[] = {"WSPSendTo", "WSPSendTo", "WSPRecvFrom",
                                 "WSPSocket", "WSPSelect", "WSPBind",
                                 "WSPIoctl",  "WSPSendTo", "CreateEventA"};
    const DWORD errors[] = {WSAECONNRESET, WSAENOBUFS, WSAEWOULDBLOCK, WSAEWOULDBLOCK,
                            WSAENETUNREACH};
    const DWORD error = Any(errors);
    const auto nth = static_cast<unsigned>(1 + Below(30));
    port::FailCall(Any(names), nth, error);
  }
  void BreakANode(node::SimNode& node) {
    Behaviour it = AnyNode();
    switch (Below(8)) {
      case 0:
        it.freeze = 1;
        break;
      case 1:
        it.header = static_cast<std::int64_t>(Below(6));
        break;
      case 2:
        it.data_from = Behaviour::kOther;
        break;
      case 3:
        it.data_token = static_cast<std::int64_t>(Below(10));
        break;
      case 4:
        it.data_up_loss = it.data_down_loss = static_cast<std::int64_t>(Below(80));
        break;
      default:
        break;
    }
    node.Behaves(it);
  }
  void BreakALink() {
    sim::LinkOptions link = AnyLink();
    if (Chance(50)) link.loss = 0.3;
    if (Chance(20)) link.partitioned = true;
    world.SetLink(world.home().host, AnyHost(), link);
  }
  void BreakSomething() {
    switch (Below(7)) {
      case 0:
      case 1:
      case 2:
        return FailAnyCall();
      case 3:
        return BreakANode(Chance(50) ? a : b);
      case 4:
        return BreakALink();
      case 5:
        return world.LoseSetEvent(1);
      default:
        return world.Stall(moru_vyr::lsp::GetRelayMgr().GetWorkerThreadId(), Ms(1200));
    }
  }
  void Heal() {
    port::ClearFaults();
    SetAllLinks([] { return sim::LinkOptions{}; });
    a.Behaves();
    b.Behaves();
  }
};

SCENARIO_F_SEEDS(UdpStorm, NoDatagramIsMisdeliveredOrRepeatedUnderAnyFault, SwarmSeeds(40)) {
  SetAllLinks([this] { return AnyLink(); });
  a.Behaves(AnyNode());
  b.Behaves(AnyNode());
  if (Chance(50)) MaySwitch();
  Begins();
  bool over = false;
  GameThread([this, &over] {
    for (size_t n = Below(20); n > 0 && !over; --n) {
      Sleep(static_cast<DWORD>(Below(500)));
      BreakSomething();
    }
    Sleep(1000);
    Heal();
  });
  Run(8, 40, [this](Player* player) {
    player->reads = Chance(85);
    if (Chance(20)) player->senders = 2 + static_cast<int>(Below(2));
    player->stays_ms = static_cast<DWORD>(Below(Chance(70) ? 2000 : 15'000));
    player->leaves_early = Chance(30);
  });
  over = true;
  Heal();
  ExpectAtMostOnce();
  RunFor(100ms);
  ExpectANewSocketWorks();
}

}  // namespace
