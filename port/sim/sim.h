// The simulated world that stands behind the Windows calls in this build: hosts with addresses,
// links between them, processes with threads, and a clock that only a scenario moves.
//
// Code inside a world uses ordinary Windows calls (CreateThread, socket, Sleep, …). This header
// is for the test that sets the world up, moves its time and breaks things in it. A scenario
// normally gets its world from port/sim/scenario.h; code that makes Windows calls without one
// (a unit test) gets a default world on its first call.
//
// The thread that makes a world is its director. It is a simulated thread like any other, in a
// process of its own on the host "home" (192.0.2.1), so a scenario may also make Windows calls
// directly. Everything here is called from simulated threads only.
//
// Processes share the address space: statics are common to all of them. One process of a world
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

// One direction of a link. Every probability is 0 … 1 and drawn for each packet.
struct LinkOptions {
  Duration delay{1000};
  Duration jitter{0};  // up to this much more, order kept
  double loss = 0;
  double duplicate = 0;
  double reorder = 0;               // this share is overtaken by later packets, …
  Duration reorder_by{5000};        // … being this much later
  uint64_t bytes_per_second = 0;    // 0: no limit
  size_t queue_bytes = 256 * 1024;  // what waits for the rate limit; more is dropped
  bool partitioned = false;         // a black hole; what is under way still arrives
};

struct Options {
  uint64_t seed = 1;
  uint32_t tick_start = 3'600'000;            // GetTickCount at the world's beginning
  int64_t unix_start_ms = 1'700'000'000'000;  // the date then: 14 November 2023, 22:13:20
  int preempt_percent = -1;                   // chance of a thread switch at a call; -1: by seed
  Duration max_time = std::chrono::hours(24);
  uint64_t max_steps = 20'000'000;
  uint64_t spin_steps = 20'000;       // calls without a wait after which the clock moves by 1 ms
  LinkOptions link;                   // what hosts start with between them
  bool tcp_saves_segments = false;    // Nagle's rule and delayed acknowledgements, as in life
  bool reuse_socket_handles = false;  // true: a closed handle's number comes back at once
  TraceRing* trace = nullptr;         // null: the world makes its own
};

class Host {
 public:
  Host(Network& network, const std::string& name, const std::vector<uint32_t>& addresses);
  ~Host();
  const std::string& name() const { return name_; }
  const std::vector<uint32_t>& addresses() const { return addresses_; }  // host order, no 127.x
  Stack& stack() { return *stack_; }

  bool down = false;  // true: silent, as with the cable pulled; its own loopback still works

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
  bool alive = true;      // a process whose threads have all ended lives on, handles open
  int threads_named = 0;  // by the world, if they had no name
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
  Host& host(const std::string& name);  // ends the world if there is none
  Process& AddProcess(Host& host, const std::string& name,
                      const std::wstring& path = L"C:\\actor\\actor.exe",
                      const std::string& command_line = "");
  Process& home() { return *home_; }  // the director's own process
  // A thread that is ready to run. Its id is what GetCurrentThreadId answers in it.
  DWORD Spawn(Process& process, const std::string& name, std::function<void()> body);
  // The same for code that counts threads as Windows does; an empty name makes one up. Null when
  // the machine has no more threads to give.
  std::shared_ptr<Thread> StartThread(Process& process, const std::string& name,
                                      std::function<uint32_t()> body);
  // A process with one thread, called "main".
  Process& SpawnOn(Host& host, const std::string& name, std::function<void()> body);

  // --- links ---
  void SetLink(const Host& a, const Host& b, const LinkOptions& options);  // both directions
  void SetLinkOneWay(const Host& from, const Host& to, const LinkOptions& options);
  LinkOptions link(const Host& from, const Host& to);
  void Partition(const Host& a, const Host& b, bool partitioned = true);

  // --- time; for the director ---
  Duration now() const;             // since the world began
  void RunFor(Duration duration);   // returns when that much has passed and all is done that is due
  void AdvanceTo(Duration moment);  // the same for a moment since the beginning
  // Until the condition holds, at most that long; false: it never did.
  bool RunUntil(const std::function<bool()>& condition, Duration most = std::chrono::minutes(10));
  // Until no thread can run, no packet is on its way and no stream waits to be acknowledged.
  // Threads that wait for time to pass count as quiet.
  bool RunUntilIdle(Duration most = std::chrono::minutes(10));
  // Until every thread but the caller's has ended.
  bool RunUntilAllEnd(Duration most = std::chrono::minutes(10));
  // Calls `action` at that time from now. It must not block: set a link, kill a process, ….
  void After(Duration delay, std::function<void()> action);

  // --- faults; port::FailCall (port/shared/faults.h) makes any named call fail ---
  // The n-th stream send from now on, over all processes, takes only that many bytes.
  void ShortSend(unsigned nth, size_t bytes);
  // The n-th SetEvent from now on answers TRUE and sets nothing.
  void LoseSetEvent(unsigned nth);
  // The n-th CreateThread from now on fails.
  void FailThreadStart(unsigned nth, DWORD error = ERROR_NOT_ENOUGH_MEMORY);
  // The thread is not scheduled for that long, wherever it is.
  void Stall(DWORD thread_id, Duration duration);
  // The thread ends wherever it is, as if by TerminateThread.
  void Terminate(DWORD thread_id);
  // Runs `action` when the thread of that name ("process/thread") begins its n-th call from now
  // on, or, where there is no such thread yet, its n-th call at all. It must not block; it may end
  // the thread or its process. One action a thread.
  void AtCall(const std::string& thread, unsigned nth, std::function<void()> action);
  // All threads end at once, nothing is unwound; mutexes are abandoned, streams are reset,
  // handles and views are closed.
  void Kill(Process& process, DWORD exit_code = 1);
  // The same at the moment when a thread of the process gets the named mutex.
  void KillWhenItHolds(Process& process, const std::string& mutex);
  // The same between two instructions of a copy: at the process's n-th write from now on into views
  // of that mapping. The copy's later writes do not happen.
  void KillAtWrite(Process& process, const std::string& mapping, unsigned nth);
  // Calls `look` when a thread of that process (null: of any) has mapped a view of that mapping,
  // with true, and after each instruction of the thread until it unmaps the view, with false, or
  // until `look` says false: it has seen enough of this view. What it may do: see
  // port/shared/single_step.h.
  void WatchView(Process* process, const std::string& mapping, ViewLook look);
  void ReuseSocketHandles(bool reuse);

  // --- looking ---
  uint64_t seed() const { return options_.seed; }
  Random& random() { return random_; }  // for a scenario's own choices
  bool IsRunning(DWORD thread_id) const;
  DWORD ThreadNamed(const std::string& name) const;  // "process/thread"; 0: none alive
  uint64_t steps() const;
  std::string Report() const;           // who waits for what
  void Trace(const std::string& line);  // one more line in the trace
  const TraceRing& trace() const { return *options_.trace; }
  // Ends the world as a failure: prints the reason, the report, the trace and the command that
  // replays the run.
  [[noreturn]] void Fail(const std::string& reason);

  // --- for the Windows calls of port/sim ---
  const Options& options() const { return options_; }
  Scheduler& scheduler() { return *scheduler_; }
  Network& network() { return *network_; }
  SocketTable& sockets() { return *sockets_; }
  Faults& faults() { return *faults_; }
  Random& secrets() { return secrets_; }  // behind rand_s

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

// The world of this process; made on first use, with VYR_SEED or 1, when none stands.
World& TheWorld();
// Null before the first.
World* TheWorldIfAny();

// The exit code of a program whose world failed.
constexpr int kWorldFailed = 3;

// Tells the world that a parent prints the trace and this command when it fails.
void SetReplayCommand(const std::string& command);

}  // namespace sim
