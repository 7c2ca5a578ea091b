// What goes wrong in the whole world, when it is due, and how it is healed.
#include "port/shared/faults.h"
#include "port/shared/winsock.h"
#include "port/sim/threads.h"
#include "tests/scenario/whole_world.h"

namespace whole_test {
namespace {

constexpr char kWorker[] = "home/thread1";
constexpr char kReporter[] = "home/thread2";

}  // namespace

void WholeWorld::StartFaults() {
  world.SpawnOn(world.home().host, "faults", [this] {
    for (const size_t at : kept_) {
      const Fault& fault = faults_[at];
      const auto moment = play_begins_ + std::chrono::milliseconds(fault.at_ms);
      if (moment > world.now())
        Sleep(static_cast<DWORD>((moment - world.now()) / std::chrono::milliseconds(1)));
      world.Trace("fault " + std::to_string(at) + ", " + fault.Text());
      Apply(fault);
    }
  });
}

void WholeWorld::Apply(const Fault& fault) {
  const auto ms = [](uint64_t n) { return std::chrono::milliseconds(n); };
  switch (fault.kind) {
    case FaultKind::kFailCall:
      return port::FailCall(CallOf(fault), static_cast<unsigned>(fault.b), ErrorOfCall(fault));
    case FaultKind::kShortSend:
      return world.ShortSend(static_cast<unsigned>(fault.a), fault.b);
    case FaultKind::kLoseEvent:
      return world.LoseSetEvent(static_cast<unsigned>(fault.a));
    case FaultKind::kFailThread:
      return world.FailThreadStart(1);
    case FaultKind::kStallWorker:
      if (const DWORD id = world.ThreadNamed(kWorker)) world.Stall(id, ms(fault.a));
      return;
    case FaultKind::kStallReporter:
      if (const DWORD id = world.ThreadNamed(kReporter)) world.Stall(id, ms(fault.a));
      return;
    case FaultKind::kNodeBehaves:
      return NodeBehaves(fault.a, fault.b);
    case FaultKind::kNodeDies:
      return NodeDies(fault.a, ms(fault.b));
    case FaultKind::kLink:
      return ChangeLink(fault.a, fault.b);
    case FaultKind::kTables:
      return WriteTables(fault.a);
    case FaultKind::kClientHolds:
      return ClientHolds(fault.a, ms(fault.b));
    case FaultKind::kClientDies:
      return ClientHolds(fault.a, ms(0));
    case FaultKind::kGameThread:
      return EndGameThread(fault);
    case FaultKind::kWorkerEnds:
      worker_is_ended_ = true;
      return EndOneOfOurs(kWorker, static_cast<unsigned>(fault.a));
    case FaultKind::kReporterEnds:
      reporter_is_ended_ = true;
      return EndOneOfOurs(kReporter, static_cast<unsigned>(fault.a));
    case FaultKind::kTickWraps:  // has been set since the world began
      timers_may_rest_ = true;
      return;
  }
}

// At the next call outside the dispatch: a thread that ended there would keep the dispatch's lock
// for ever.
void WholeWorld::EndOneOfOurs(const char* thread, unsigned nth) {
  world.AtCall(thread, nth, [this, thread] {
    if (port::IsInsideDispatch()) return EndOneOfOurs(thread, 1);
    world.Terminate(world.ThreadNamed(thread));
  });
}

void WholeWorld::EndGameThread(const Fault& fault) {
  for (size_t i = 0; i < players_.size(); ++i) {
    const size_t which = (fault.a + i) % players_.size();
    const DWORD id = players_[which];
    const std::string name = "home/player" + std::to_string(which);
    if (!world.IsRunning(id) || world.ThreadNamed(name) != id) continue;
    EndOneOfOurs(players_names_.emplace_back(name).c_str(), static_cast<unsigned>(fault.b));
    game_thread_is_ended_ = true;
    return;
  }
}

void WholeWorld::Heal() {
  port::ClearFaults();
  world.ShortSend(0, 0);
  world.LoseSetEvent(0);
  world.FailThreadStart(0);
  sim::Host& home = world.home().host;
  for (size_t i = 0; i <= kServerHost; ++i) {
    world.SetLink(home, HostOf(i), {});
    if (i != kServerHost) world.SetLink(HostOf(i), server_host, {});
  }
  for (size_t i = 0; i < kNodes; ++i) {
    BehaviourOf(i) = {};
    if (!node_processes_[i]->alive) StartNode(i);
  }
  WriteTables(0);
}

}  // namespace whole_test
