#include <cstdio>
#include <cstdlib>

#include "port/shared/files.h"
#include "port/shared/mappings.h"
#include "port/shared/objects.h"
#include "port/shared/process.h"
#include "port/sim/faults.h"
#include "port/sim/network.h"
#include "port/sim/seeds.h"
#include "port/sim/sockets.h"
#include "port/sim/threads.h"

namespace sim {
namespace {

World* the_world = nullptr;
std::string replay_command;

constexpr size_t kTraceLinesShown = 60;

int PreemptPercent(const Options& options) {
  if (options.preempt_percent >= 0) return options.preempt_percent;
  // Some orders occur only if threads run uninterrupted for long, others only if they never do.
  constexpr int kChoices[] = {2, 10, 25, 50};
  return kChoices[Random(Scattered(options.seed ^ 0x70726565)).Below(4)];
}

uint64_t SeedOfEnvironment() {
  const char* text = std::getenv("VYR_SEED");
  return text ? std::strtoull(text, nullptr, 0) : 1;
}

// Never freed, but still reachable for a leak checker.
template <class T>
void Keep(std::unique_ptr<T>& owner) {
  static auto& kept = *new std::vector<std::shared_ptr<T>>;
  kept.push_back(std::move(owner));
}

}  // namespace

Process::Process(Host& at, const std::string& called, DWORD id)
    : host(at), name(called), pid(id), record_(std::make_unique<port::Process>()) {}
Process::~Process() = default;

World::World(const Options& options)
    : options_(options),
      random_(Scattered(options.seed ^ 0x73636e)),
      secrets_(Scattered(options.seed ^ 0x736563)) {
  if (!options_.trace) options_.trace = NewSharedTraceRing();
  options_.trace->hash = 0xcbf29ce484222325u;
  Scheduler::Options schedule;
  schedule.seed = Scattered(options.seed);
  schedule.preempt_percent = PreemptPercent(options);
  schedule.max_time = options.max_time.count();
  schedule.max_steps = options.max_steps;
  schedule.spin_steps = options.spin_steps;
  Scheduler::Hooks hooks;
  hooks.fail = [this](const std::string& reason) { Fail(reason); };
  hooks.ended = [this](Thread& thread) { OnThreadEnded(thread); };
  scheduler_ = std::make_unique<Scheduler>(schedule, std::move(hooks));
  std::function<void(const std::string&)> trace;
  if (options.traces) trace = [this](const std::string& line) { Trace(line); };
  network_ = std::make_unique<Network>(*scheduler_, Scattered(options.seed ^ 0x6e6574),
                                       options.link, std::move(trace));
  sockets_ = std::make_unique<SocketTable>(options.reuse_socket_handles);
  faults_ = std::make_unique<Faults>();
  the_world = this;
  // The thread comes before the first process, because creating a process record makes a Windows
  // call.
  const ThreadRef director = scheduler_->Adopt("home/director", nullptr);
  home_ = &AddProcess(AddHost("home", {"192.0.2.1"}), "home", L"C:\\game\\game.exe",
                      "\"C:\\game\\game.exe\"");
  director->SetProcess(home_);
}

// Killed threads stay inside a call, with their stacks, and never end. The objects that their
// stacks refer to must outlive them.
World::~World() {
  Keep(scheduler_);
  Keep(network_);
  Keep(sockets_);
  Keep(faults_);
  for (auto& process : processes_) Keep(process);
  if (the_world == this) the_world = nullptr;
}

// --- building -------------------------------------------------------------------------------

Host& World::AddHost(const std::string& name, const std::vector<std::string>& addresses) {
  std::vector<uint32_t> numbers;
  for (const auto& text : addresses) {
    numbers.push_back(ParseIp(text));
    if (numbers.back() == 0) Fail("host " + name + ": no address: " + text);
    if (network_->HostAt(numbers.back())) Fail("host " + name + ": address in use: " + text);
  }
  return network_->AddHost(name, numbers);
}

Host& World::host(const std::string& name) {
  Host* found = network_->HostNamed(name);
  if (!found) Fail("there is no host " + name);
  return *found;
}

Process& World::AddProcess(Host& host, const std::string& name, const std::wstring& path,
                           const std::string& command_line) {
  processes_.push_back(std::make_unique<Process>(host, name, next_pid_));
  Process& process = *processes_.back();
  next_pid_ += 4;
  process.record().pid = process.pid;
  process.record().path = path;
  process.record().command_line = command_line;
  return process;
}

ThreadRef World::StartThread(Process& process, const std::string& name,
                             std::function<uint32_t()> body) {
  const std::string label =
      process.name + "/" + (name.empty() ? Format("thread%d", ++process.threads_named) : name);
  auto thread = scheduler_->Start(label, &process, std::move(body));
  if (!thread) return nullptr;
  Trace("thread " + label + " starts");
  if (const auto at = faults_->at_call.find(label); at != faults_->at_call.end()) {
    scheduler_->AtCall(*thread, at->second.nth, std::move(at->second.action));
    faults_->at_call.erase(at);
  }
  return thread;
}

DWORD World::Spawn(Process& process, const std::string& name, std::function<void()> body) {
  auto thread = StartThread(process, name, [run = std::move(body)] {
    run();
    return 0u;
  });
  if (!thread) Fail("no thread could be started for " + process.name + "/" + name);
  return thread->id();
}

Process& World::SpawnOn(Host& host, const std::string& name, std::function<void()> body) {
  Process& process = AddProcess(host, name);
  Spawn(process, "main", std::move(body));
  return process;
}

// --- links ----------------------------------------------------------------------------------

void World::SetLinkOneWay(const Host& from, const Host& to, const LinkOptions& options) {
  for (const double share : {options.loss, options.duplicate, options.reorder}) {
    if (share >= 0 && share <= 1) continue;
    Fail(Format("a share of %g of a link's packets: it must be 0 to 1, and 20 %% is 0.2", share));
  }
  network_->LinkFrom(from, to).Set(options);
}

void World::SetLink(const Host& a, const Host& b, const LinkOptions& options) {
  SetLinkOneWay(a, b, options);
  SetLinkOneWay(b, a, options);
}

LinkOptions World::link(const Host& from, const Host& to) {
  return network_->LinkFrom(from, to).options();
}

void World::Partition(const Host& a, const Host& b, bool partitioned) {
  for (auto [from, to] : {std::pair(&a, &b), std::pair(&b, &a)}) {
    LinkOptions changed = link(*from, *to);
    changed.partitioned = partitioned;
    SetLinkOneWay(*from, *to, changed);
  }
}

// --- time -----------------------------------------------------------------------------------

Duration World::now() const { return Duration(scheduler_->now()); }

void World::RunFor(Duration duration) { AdvanceTo(now() + duration); }

void World::AdvanceTo(Duration moment) {
  Wait wait;
  wait.deadline = moment.count();
  wait.what = "time to pass (the scenario)";
  wait.when_idle = true;
  scheduler_->Block(wait);
}

bool World::RunUntil(const std::function<bool()>& condition, Duration most) {
  Wait wait;
  wait.ready = condition;
  wait.deadline = (now() + most).count();
  wait.what = "a condition of the scenario";
  return scheduler_->Block(wait);
}

bool World::RunUntilIdle(Duration most) {
  Wait wait;
  wait.ready = [this] { return network_->Quiet(); };
  wait.deadline = (now() + most).count();
  wait.what = "everyone to be idle (the scenario)";
  wait.when_idle = true;
  return scheduler_->Block(wait);
}

bool World::RunUntilAllEnd(Duration most) {
  const Thread* self = &scheduler_->current();
  return RunUntil(
      [this, self] {
        for (const auto& thread : scheduler_->threads())
          if (!thread->ended() && thread.get() != self) return false;
        return true;
      },
      most);
}

void World::After(Duration delay, std::function<void()> action) {
  scheduler_->At((now() + delay).count(), std::move(action));
}

void World::SetTimerGrain(Duration grain) {
  if (grain < Duration(1)) Fail("timers cannot be finer than a microsecond");
  Trace(Format("timers notice each %lld us", static_cast<long long>(grain.count())));
  scheduler_->SetGrain(grain.count());
}

// --- faults ---------------------------------------------------------------------------------

void World::ShortSend(unsigned nth, size_t bytes) {
  faults_->short_send.left = nth;
  faults_->short_send_bytes = bytes;
}

void World::LoseSetEvent(unsigned nth) { faults_->lost_set_event.left = nth; }

void World::FailThreadStart(unsigned nth, DWORD error) {
  faults_->thread_start.left = nth;
  faults_->thread_start_error = error;
}

void World::Stall(DWORD thread_id, Duration duration) {
  const ThreadRef thread = scheduler_->Find(thread_id);
  if (!thread) Fail(Format("there is no thread %u to stall", thread_id));
  Trace("thread " + thread->name() + " is stalled");
  scheduler_->Stall(*thread, duration.count());
}

void World::Terminate(DWORD thread_id) {
  const ThreadRef thread = scheduler_->Find(thread_id);
  if (!thread || thread->ended()) return;
  Trace("thread " + thread->name() + " is terminated");
  scheduler_->Kill(*thread, 1);
}

void World::AtCall(const std::string& thread, unsigned nth, std::function<void()> action) {
  const ThreadRef found = scheduler_->Find(ThreadNamed(thread));
  if (found) {
    scheduler_->AtCall(*found, nth, std::move(action));
  } else {
    faults_->at_call[thread] = {nth, std::move(action)};
  }
}

void World::Kill(Process& process, DWORD exit_code) {
  if (!process.alive) return;
  process.alive = false;
  Trace("process " + process.name + " is killed");
  sockets_->CloseAllOf(process);
  port::UnmapViewsOf(process.pid);
  port::CloseHandlesOf(process.pid);
  std::vector<ThreadRef> threads;
  for (const auto& thread : scheduler_->threads())
    if (thread->process() == &process) threads.push_back(thread);
  scheduler_->Kill(threads, exit_code);  // last: one of them may be the caller
}

void World::KillWhenItHolds(Process& process, const std::string& mutex) {
  faults_->kill_when_it_holds.emplace_back(&process, mutex);
}

void World::ReuseSocketHandles(bool reuse) { sockets_->SetReuse(reuse); }

void World::OnThreadEnded(Thread& thread) {
  Trace("thread " + thread.name() + " ends");
  AbandonMutexesOf(thread);
}

// --- inspection -----------------------------------------------------------------------------

bool World::IsRunning(DWORD thread_id) const {
  const ThreadRef thread = scheduler_->Find(thread_id);
  return thread && !thread->ended();
}

DWORD World::ThreadNamed(const std::string& name) const {
  for (const auto& thread : scheduler_->threads())
    if (thread->name() == name && !thread->ended()) return thread->id();
  return 0;
}

uint64_t World::steps() const { return scheduler_->steps(); }

std::string World::Report() const { return scheduler_->Report(); }

void World::Trace(const std::string& line) {
  if (!options_.traces) return;
  const Micros now = scheduler_->now();
  AddTraceLine(*options_.trace, Format("%6lld.%06lld  ", static_cast<long long>(now / 1000000),
                                       static_cast<long long>(now % 1000000)) +
                                    line);
}

void World::Fail(const std::string& reason) {
  std::fflush(stdout);
  std::fprintf(stderr, "sim: %s\n%s", reason.c_str(), Report().c_str());
  if (replay_command.empty()) {
    PrintTrace(*options_.trace, kTraceLinesShown);
    std::fprintf(stderr, "sim: the seed was %llu; VYR_SEED sets it\n",
                 static_cast<unsigned long long>(options_.seed));
  }
  std::fflush(stderr);
  port::RemoveTemporaryRoot();
  _exit(kWorldFailed);
}

World& TheWorld() {
  if (!the_world) {
    Options options;
    options.seed = SeedOfEnvironment();
    options.max_steps *= 10;  // all tests of a program share this world
    options.max_time *= 100;
    new World(options);  // never freed: threads and static objects may use it to the very end
  }
  return *the_world;
}

World* TheWorldIfAny() { return the_world; }

void SetReplayCommand(const std::string& command) { replay_command = command; }

}  // namespace sim
