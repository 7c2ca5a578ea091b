#include "tests/scenario/whole_world.h"

#include <algorithm>
#include <cstdio>

#include "port/shared/objects.h"
#include "port/sim/threads.h"

namespace whole_test {
namespace {

// How long a node waits at most for something to happen. That decides what an hour of silence
// costs.
constexpr DWORD kIdleStepMs = 1000;
constexpr size_t kMostBetweenSwitches = 128;  // as many sockets as the relay polls
// Of each function. What is kept for reuse grows to what the busiest moment has needed.
constexpr long kSpareBlocks = 24;

// The handles that are open, each with its kind and name. Values are multiples of four.
std::map<uintptr_t, std::string> OpenObjects() {
  std::map<uintptr_t, std::string> open;
  const size_t count = port::OpenHandles();
  for (uintptr_t value = 4; open.size() < count && value < 4'000'000; value += 4) {
    if (const auto object = port::Lookup(reinterpret_cast<HANDLE>(value)))
      open[value] = std::string(object->kind()) + " " + object->name();
  }
  return open;
}

}  // namespace

WholeWorld::WholeWorld(const Course& course, const FaultList& faults, const test::Kept& kept)
    : course_(course), faults_(faults), kept_(kept) {
  if (Chance(50)) common::SetLogThreshold(9);
  serve = [this](SOCKET s, Call* call) { Serve(s, call); };
  for (const char* ip : {kServer, kDirect, kForced, kUnlisted, kAlone}) {
    StartEcho(ip, kPort);
    StartEcho(ip, kOtherPort);
  }
  node_processes_ = {&a.process(), &b.process(), nullptr};
  if (course_.IsLong()) {
    node_step_ms_ = kIdleStepMs;
    LookAgainEvery(kIdleLookMs, 20);
    PollLateCallsEvery(kIdleLookMs);
    for (const size_t which : {0, 1}) {
      world.Kill(*node_processes_[which]);
      StartNode(which);
    }
  }
  StartNode(2);
  WriteTables(0);
  PlanAll();
}

void WholeWorld::PlanAll() {
  for (size_t i = 0; i < course_.stretches.size(); ++i) {
    const Stretch& stretch = course_.stretches[i];
    const size_t streams = streams_.size(), talkers = talkers_.size(), pingers = pingers_.size();
    if (stretch.kind == Stretch::kBusy) PlanBusy(stretch);
    if (stretch.kind == Stretch::kQuiet) PlanQuiet(stretch);
    for (size_t n = streams; n < streams_.size(); ++n) streams_[n].stretch = i;
    for (size_t n = talkers; n < talkers_.size(); ++n) talkers_[n].stretch = i;
    for (size_t n = pingers; n < pingers_.size(); ++n) pingers_[n].stretch = i;
  }
  for (auto& variant : node_variants_) {
    if (Chance(30)) variant = world.random().Next();
  }
  world.ReuseSocketHandles(Chance(50));
}

void WholeWorld::PlanBusy(const Stretch& stretch) {
  for (size_t n = 2 + Below(8); n > 0; --n) PlanStream(stretch);
  for (size_t n = 1 + Below(6); n > 0; --n) PlanTalker(stretch);
  for (size_t n = Below(3); n > 0; --n) PlanPinger(stretch);
}

// --- the whole life -----------------------------------------------------------------------------

void WholeWorld::Live() {
  if (course_.IsLong()) test::StartCensus();
  WSADATA data = {};
  EXPECT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  closesocket(Udp());
  RunFor(100ms);
  late_.emplace();
  ExpectPlaysOn();  // also whatever is made once and stays
  RunFor(35s);      // the worker makes its event for changed lists
  base_sockets_ = HomeSockets();
  base_stream_sockets_ = HomeStreamSockets();
  base_objects_ = OpenObjects();
  base_views_ = port::OpenViews();
  for (Stream& stream : streams_) stream.answered = false;
  heard_.clear();
  serve = [this](SOCKET s, Call* call) { Serve(s, call); };

  play_begins_ = world.now();
  for (size_t i = 0; i < kNodes; ++i) {
    if (node_variants_[i]) NodeBehaves(i, *node_variants_[i]);
  }
  StartReader();
  StartGame(0);
  StartFaults();
  for (size_t i = 0; i < course_.stretches.size(); ++i) {
    if (i > 0) StartGame(i);
    LiveThrough(course_.stretches[i]);
    Heal();
    if (course_.stretches[i].kind == Stretch::kSilent) CountBlocks();
  }
  const auto all_end = [this] {
    return std::none_of(players_.begin(), players_.end(),
                        [this](DWORD id) { return world.IsRunning(id); });
  };
  EXPECT_TRUE(RunUntil(all_end, 10min)) << world.Report();
  Heal();  // what the last faults have left
  Release();
  RunUntil(
      [this] {
        return std::all_of(calls.begin(), calls.end(),
                           [](const Call& call) { return call.over(); });
      },
      2min);
  ExpectStreams();
  ExpectDatagrams();
  is_over_ = true;  // the client takes no more reports
  RunFor(1s);
  ExpectNothingIsLeft();
  ExpectPlaysOn();
  if (course_.IsLong() && !timers_rest_ && !worker_is_ended_) ExpectSilenceIsNoticed();
  const DWORD begin = GetTickCount();
  EXPECT_EQ(WSACleanup(), 0);
  EXPECT_LE(GetTickCount() - begin, IsMended() ? 5500u : 410u);
  std::printf("simulated %lld ms, %llu steps, %zu reports%s\n",
              static_cast<long long>(world.now() / std::chrono::milliseconds(1)),
              static_cast<unsigned long long>(world.steps()), reports_.taken(),
              timers_rest_       ? ", timers rest"
              : timers_may_rest_ ? ", timers go on after a wrap"
                                 : "");
}

void WholeWorld::LiveThrough(const Stretch& stretch) {
  const auto moment = [this](uint32_t ms) { return play_begins_ + std::chrono::milliseconds(ms); };
  uint32_t exact_until_ms = stretch.begin_ms + kExactMs;
  for (const size_t at : kept_) {
    // Whether a wrap stops the timers depends on some milliseconds.
    if (faults_[at].kind == FaultKind::kTickWraps && faults_[at].at_ms < stretch.end_ms())
      exact_until_ms = std::max(exact_until_ms, faults_[at].at_ms + kExactMs);
  }
  const bool saves_power = stretch.timers_ms != 0 && exact_until_ms < stretch.end_ms();
  if (saves_power) {
    AdvanceTo(moment(exact_until_ms));
    world.SetTimerGrain(std::chrono::milliseconds(stretch.timers_ms));
  }
  AdvanceTo(moment(stretch.end_ms()));
  if (saves_power) world.SetTimerGrain(1us);
}

void WholeWorld::Player(std::function<void()> body) {
  const std::string name = "player" + std::to_string(players_.size());
  players_.push_back(world.Spawn(world.home(), name, std::move(body)));
}

void WholeWorld::StartGame(size_t stretch) {
  for (Stream& stream : streams_)
    if (stream.stretch == stretch) Player([this, &stream] { PlayStream(&stream); });
  for (Talker& talker : talkers_)
    if (talker.stretch == stretch) Player([this, &talker] { Talk(&talker); });
  for (Pinger& pinger : pingers_)
    if (pinger.stretch == stretch) Player([this, &pinger] { PingAll(&pinger); });
}

// Sockets of threads that were ended.
void WholeWorld::Release() {
  for (Stream& stream : streams_)
    if (stream.caller != nullptr) stream.caller->Close();
  for (Talker& talker : talkers_)
    if (talker.caller != nullptr) talker.caller->Close();
  for (Pinger& pinger : pingers_)
    if (pinger.s != INVALID_SOCKET) closesocket(pinger.s);
}

// --- verdicts -----------------------------------------------------------------------------------

// Of threads that were ended while they made one. Nobody knows its handle.
size_t WholeWorld::SocketsWithoutOwner() const {
  const auto makes = [](const auto& player) { return player.makes_socket; };
  return static_cast<size_t>(std::count_if(streams_.begin(), streams_.end(), makes) +
                             std::count_if(talkers_.begin(), talkers_.end(), makes) +
                             std::count_if(pingers_.begin(), pingers_.end(), makes));
}

// Those between two switches are for datagrams, and so allow for none of these.
size_t WholeWorld::HomeStreamSockets() const {
  const std::string list = world.sockets().ListOf(world.home());
  const std::string stream = " of type " + std::to_string(SOCK_STREAM) + ",";
  size_t count = 0;
  for (size_t at = 0; (at = list.find(stream, at)) != std::string::npos; ++at) ++count;
  return count;
}

// Everything that the first stretch has opened is over.
void WholeWorld::CountBlocks() { base_blocks_ = test::Census(); }

// Kept: some wraps of the tick counter stop the worker's timers. One of these takes the client's
// word for changed lists, which shows whether they run.
bool WholeWorld::TimersRest() {
  const std::string name = "spur_iplist_change_notify_" + std::to_string(GetCurrentProcessId());
  const HANDLE event = OpenEventA(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, name.c_str());
  if (event == nullptr) return true;
  SetEvent(event);
  RunFor(65s);  // two of its beats
  const bool rest = WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
  CloseHandle(event);
  return rest;
}

void WholeWorld::ExpectNoMoreBlocks() {
  // Kept: after a wrap the reporting thread rests, and what it has to say is kept.
  const auto waits_for_the_reporter = [this](const std::string& function) {
    return timers_may_rest_ && (function.find("Tracker") != std::string::npos ||
                                function.find("SocketQosRecord") != std::string::npos);
  };
  for (const auto& [function, count] : test::Census()) {
    if (waits_for_the_reporter(function)) continue;
    const auto before = base_blocks_.find(function);
    const long most = (before == base_blocks_.end() ? 0 : before->second) + kSpareBlocks;
    EXPECT_LE(count, most) << "blocks of " << function;
  }
}

void WholeWorld::ExpectNothingIsLeft() {
  // Once the worker is gone, the reporting thread closes its sockets, or else the cleanup. Where
  // its timers rest, what waits for them stays open.
  timers_rest_ = timers_may_rest_ && (!course_.IsLong() || TimersRest());
  if (!worker_is_ended_ && !timers_rest_) {
    // Kept: after a second switch of a flow the socket in between stays open, which only coarse
    // timers bring about. A reporting thread that rests after a wrap, or was ended, does not tell
    // of switches, so they may be any number.
    const bool may_stay = course_.IsLong() && !IsMended();
    const bool is_told = !timers_may_rest_ && !reporter_is_ended_;
    size_t between = 0;
    if (may_stay) between = is_told ? reports_.later_switches() : kMostBetweenSwitches;
    const size_t spare = SocketsWithoutOwner();
    const size_t most = base_sockets_ + spare + between;
    const auto are_closed = [this, most, spare] {
      return HomeSockets() <= most && HomeStreamSockets() <= base_stream_sockets_ + spare;
    };
    RunUntil(are_closed, 6min);
    EXPECT_TRUE(are_closed()) << world.sockets().ListOf(world.home()) << "where " << most
                              << " may be, and " << base_stream_sockets_ + spare << " of type 1";
    EXPECT_GE(HomeSockets(), base_sockets_);
  }
  RunFor(3s);
  if (worker_is_ended_ || reporter_is_ended_ || game_thread_is_ended_) return;
  // A postponed connect that waits for timers which rest keeps its event, as it does its socket.
  const bool may_wait = course_.IsLong() && timers_rest_ && IsMended();
  const size_t waiting = may_wait ? HomeSockets() - std::min(HomeSockets(), base_sockets_) : 0;
  EXPECT_LE(port::OpenHandles(), base_objects_.size() + waiting) << NewObjects();
  EXPECT_GE(port::OpenHandles(), base_objects_.size());
  EXPECT_EQ(port::OpenViews(), base_views_);
  if (course_.IsLong() && !timers_rest_) ExpectNoMoreBlocks();
}

std::string WholeWorld::NewObjects() const {
  std::string text;
  for (const auto& [value, object] : OpenObjects())
    if (base_objects_.count(value) == 0) text += object + "\n";
  return text;
}

// Nodes that do not answer cost a stream time, and not its life, and a datagram likewise: the
// relay's timers see to it, each protocol's its own.
void WholeWorld::ExpectSilenceIsNoticed() {
  for (size_t i = 0; i < kNodes; ++i) BehaviourOf(i).on_request = node::Behaviour::kSilent;
  serve = Echo;
  const SOCKET s = Tcp();
  Caller caller(s, Style::kBlocks);
  char bytes[16];
  if (caller.Connect(kServer, kPort) == 0 && caller.Send("anyone there", 12) == 12) {
    EXPECT_NE(caller.Receive(bytes, sizeof bytes), -WSAETIMEDOUT);
  }
  caller.Close();
  ExpectADatagramIsAnswered();
  for (size_t i = 0; i < kNodes; ++i) BehaviourOf(i) = {};
}

void WholeWorld::ExpectPlaysOn() {
  serve = Echo;
  PingOnce();
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "still there"), "still there");
  closesocket(s);
  closesocket(Joins(kUnlisted));  // asks for the list of added addresses, too
  ExpectADatagramIsAnswered();
  RunFor(1s);
}

}  // namespace whole_test
