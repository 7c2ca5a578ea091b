// The simulated world behind the Windows calls in this build: hosts with addresses, links between
// them, processes with threads, and a clock that only a scenario advances.
//
// Code inside a world makes ordinary Windows calls (CreateThread, socket, Sleep, …). This header is
// for the test that sets up the world, advances its time and injects faults. A scenario normally
// gets its world from port/sim/scenario.h. Code that makes Windows calls without a world, such as a
// unit test, gets a default world on its first call.
//
// The thread that creates a world is its director. It is an ordinary simulated thread, in a process
// of its own on the host "home" (192.0.2.1), so a scenario may make Windows calls directly. Call
// everything here from simulated threads only.
//
// All processes share one address space, and therefore all static objects. One process of a world
// runs the product; the others are actors.
#pragma once
#include <windows.h>

#include <chrono>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "port/sim/random.h"
#include "port/sim/trace.h"

namespace port {
struct Process;
}

namespace sim {

using Duration = std::chrono::microseconds;
using namespace std::chrono_literals;  // NOLINT: a scenario says 5s

class Network;
class Process;
class Scheduler;
class SocketTable;
class Stack;
class Thread;
struct Faults;

using ViewLook = std::function<bool(std::span<const uint8_t> view, bool is_new)>;

// One direction of a link. Each probability is between 0 and 1, and is drawn for each packet.
struct LinkOptions {
  Duration delay{1000};
  Duration jitter{0};  // added to the delay, up to this much; packets stay in order
  double loss = 0;
  double duplicate = 0;
  double reorder = 0;               // the share of packets that later ones overtake
  Duration reorder_by{5000};        // the extra delay of such a packet
  uint64_t bytes_per_second = 0;    // 0: no limit
  size_t queue_bytes = 256 * 1024;  // waiting for the rate limit; packets beyond it are dropped
  bool partitioned = false;         // drops every packet; those already in flight still arrive
};

struct Options {
  uint64_t seed = 1;
  uint32_t tick_start = 3'600'000;            // GetTickCount when the world begins
  int64_t unix_start_ms = 1'700'000'000'000;  // the date then: 14 November 2023, 22:13:20
  int preempt_percent = -1;  // chance of a thread switch at a call; -1: the seed decides
  Duration max_time = std::chrono::hours(24);
  uint64_t max_steps = 20'000'000;
  uint64_t spin_steps = 20'000;       // calls without a wait after which the clock advances by 1 ms
  LinkOptions link;                   // the default between any two hosts
  bool tcp_saves_segments = false;    // Nagle's algorithm and delayed acknowledgements
  bool reuse_socket_handles = false;  // true: the value of a closed handle is reused at once
  TraceRing* trace = nullptr;         // null: the world creates its own
  bool traces = true;                 // false: the same run, in half the time, without a trace
};

class Host {
 public:
  Host(Network& network, const std::string& name, const std::vector<uint32_t>& addresses);
  ~Host();
  const std::string& name() const { return name_; }
  const std::vector<uint32_t>& addresses() const { return addresses_; }  // host order, no 127.x
  Stack& stack() { return *stack_; }

  bool down = false;  // true: cut off from the network; its own loopback still works

 private:
  std::string name_;
  std::vector<uint32_t> addresses_;
  std::unique_ptr<Stack> stack_;
};

class Process {
 public:
  Process(Host& at, const std::string& called, DWORD id);
  ~Process();

  Host& host;
  const std::string name;  // for traces
  const DWORD pid;
  bool alive = true;      // stays true, with handles open, after all of its threads have ended
  int threads_named = 0;  // threads that came without a name, and were named by the world
  port::Process& record() { return *record_; }  // path, command line, providers

 private:
  std::unique_ptr<port::Process> record_;
};

class World {
 public:
  explicit World(const Options& options = {});
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // --- building ---
  Host& AddHost(const std::string& name, const std::vector<std::string>& addresses);
  Host& host(const std::string& name);  // fails the world if there is none of that name
  Process& AddProcess(Host& host, const std::string& name,
                      const std::wstring& path = L"C:\\actor\\actor.exe",
                      const std::string& command_line = "");
  Process& home() { return *home_; }  // the director's own process
  // Creates a thread that is ready to run, and returns its id.
  DWORD Spawn(Process& process, const std::string& name, std::function<void()> body);
  // The same for port/sim's own CreateThread. An empty name is replaced by a generated one. Null if
  // the thread cannot be created.
  std::shared_ptr<Thread> StartThread(Process& process, const std::string& name,
                                      std::function<uint32_t()> body);
  // Creates a process with one thread, called "main".
  Process& SpawnOn(Host& host, const std::string& name, std::function<void()> body);

  // --- links ---
  void SetLink(const Host& a, const Host& b, const LinkOptions& options);  // both directions
  void SetLinkOneWay(const Host& from, const Host& to, const LinkOptions& options);
  LinkOptions link(const Host& from, const Host& to);
  void Partition(const Host& a, const Host& b, bool partitioned = true);

  // --- time; for the director ---
  Duration now() const;             // since the world began
  void RunFor(Duration duration);   // runs everything that is due in that time
  void AdvanceTo(Duration moment);  // the same up to a moment, counted from the world's beginning
  // Runs until the condition holds, for at most that long; false if it never did.
  bool RunUntil(const std::function<bool()>& condition, Duration most = std::chrono::minutes(10));
  // Runs until no thread can run, no packet is in flight and no stream waits for an
  // acknowledgement. A thread that waits for time to pass counts as idle.
  bool RunUntilIdle(Duration most = std::chrono::minutes(10));
  // Runs until every thread except the caller's has ended.
  bool RunUntilAllEnd(Duration most = std::chrono::minutes(10));
  // Calls `action` after that time. The action must not block; it may set a link, kill a process,
  // ….
  void After(Duration delay, std::function<void()> action);
  // From now on the machines notice the end of a time-out only at multiples of this, as one that
  // saves power does. 1 us, the default, is at once. The verbs above, packets and events are not
  // affected.
  void SetTimerGrain(Duration grain);

  // --- faults; port::FailCall (port/shared/faults.h) makes any named call fail ---
  // The n-th stream send from now on, over all processes, accepts only that many bytes.
  void ShortSend(unsigned nth, size_t bytes);
  // The n-th SetEvent from now on returns TRUE without setting the event.
  void LoseSetEvent(unsigned nth);
  // The n-th CreateThread from now on fails.
  void FailThreadStart(unsigned nth, DWORD error = ERROR_NOT_ENOUGH_MEMORY);
  // Does not schedule the thread for that long, wherever it is.
  void Stall(DWORD thread_id, Duration duration);
  // Ends the thread wherever it is, as TerminateThread would.
  void Terminate(DWORD thread_id);
  // Runs `action` when the thread of that name ("process/thread") begins its n-th call, counted
  // from now on, or from its start if there is no such thread yet. The action must not block; it
  // may end the thread or its process. There is one action for each thread.
  void AtCall(const std::string& thread, unsigned nth, std::function<void()> action);
  // Ends all threads at once, without unwinding their stacks. Mutexes are abandoned, streams are
  // reset, handles and views are closed.
  void Kill(Process& process, DWORD exit_code = 1);
  // The same at the moment when a thread of the process acquires the named mutex.
  void KillWhenItHolds(Process& process, const std::string& mutex);
  // The same between two instructions of a copy: at the process's n-th write, counted from now on,
  // into views of that mapping. The later writes of the copy do not happen.
  void KillAtWrite(Process& process, const std::string& mapping, unsigned nth);
  // Calls `look` with is_new = true when a thread of that process (null: of any) has mapped a view
  // of that mapping, and then with false after each instruction of the thread, until the thread
  // unmaps the view or `look` returns false. See port/shared/single_step.h for what `look` may do.
  void WatchView(Process* process, const std::string& mapping, ViewLook look);
  void ReuseSocketHandles(bool reuse);

  // --- inspection ---
  uint64_t seed() const { return options_.seed; }
  Random& random() { return random_; }  // for a scenario's own choices
  bool IsRunning(DWORD thread_id) const;
  DWORD ThreadNamed(const std::string& name) const;  // "process/thread"; 0: no such thread runs
  uint64_t steps() const;
  std::string Report() const;           // each thread and what it waits for
  void Trace(const std::string& line);  // adds a line to the trace
  const TraceRing& trace() const { return *options_.trace; }
  // Fails the world: prints the reason, the report, the trace and the command that replays the run,
  // and ends the program.
  [[noreturn]] void Fail(const std::string& reason);

  // --- for the Windows calls of port/sim ---
  const Options& options() const { return options_; }
  Scheduler& scheduler() { return *scheduler_; }
  Network& network() { return *network_; }
  SocketTable& sockets() { return *sockets_; }
  Faults& faults() { return *faults_; }
  Random& secrets() { return secrets_; }  // the source of rand_s

 private:
  void OnThreadEnded(Thread& thread);

  Options options_;
  Random random_;
  Random secrets_;
  std::unique_ptr<Scheduler> scheduler_;
  std::unique_ptr<Network> network_;
  std::unique_ptr<SocketTable> sockets_;
  std::unique_ptr<Faults> faults_;
  std::vector<std::unique_ptr<Process>> processes_;
  Process* home_ = nullptr;
  DWORD next_pid_ = 1000;
};

// The world of this process. If there is none, creates one, seeded from VYR_SEED or with 1.
World& TheWorld();
// Null if there is none yet.
World* TheWorldIfAny();

// The exit code of a program whose world failed.
constexpr int kWorldFailed = 3;

// Says that a parent process prints the trace and this command if the world fails.
void SetReplayCommand(const std::string& command);

}  // namespace sim
