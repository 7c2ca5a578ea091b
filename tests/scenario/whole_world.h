// One game that does everything at once, in a world where everything may go wrong: streams,
// datagrams and pings in each style of calling, three nodes, and a client program that writes the
// tables and takes the reports. What is to happen is planned before the world begins to move, from
// its seed; what goes wrong comes from a list (whole_faults.h).
#pragma once
#include "tests/scenario/swarm_datagrams.h"
#include "tests/scenario/swarm_streams.h"
#include "tests/scenario/tcp_world.h"
//
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/scenario/census.h"
#include "tests/scenario/whole_calls.h"
#include "tests/scenario/whole_faults.h"
#include "tests/scenario/whole_late.h"
#include "tests/scenario/whole_reports.h"

namespace whole_test {

using namespace tcp_test;    // NOLINT: the verbs of these tests
using namespace swarm_test;  // NOLINT: and their draws

inline constexpr char kNodeC[] = "198.51.100.22";
inline constexpr int kOtherPort = 27016;
// From these, what goes to a server is drawn: most of it goes through nodes.
inline constexpr const char* kServers[] = {kServer, kServer,   kServer, kDirect,
                                           kForced, kUnlisted, kAlone};
inline constexpr size_t kServerHost = kNodes;  // among the hosts of a link

struct Stream : StreamPlan {
  Style style = Style::kBlocks;
  size_t stretch = 0;
  bool makes_socket = false;  // from before there is one until it is stored here
  std::unique_ptr<Caller> caller;
};

// One of the game's datagrams.
struct Said {
  std::string text;
  const char* ip = kServer;
  int port = kPort;
  bool tried = false;
  bool sent = false;
  size_t arrived = 0, answered = 0;
  std::string to() const { return std::string(ip) + ":" + std::to_string(port); }
};

// One datagram socket.
struct Talker {
  std::vector<size_t> says;
  DWORD starts_ms = 0;  // since its stretch began
  DWORD beat_ms = 0, pause_ms = 0, stays_ms = 0;
  DWORD look_ms = 100;
  size_t stretch = 0;
  bool reads = true;
  Style style = Style::kBlocks;
  bool makes_socket = false;
  std::unique_ptr<Caller> caller;
};

struct Pinger {
  const char* server = kServer;
  DWORD starts_ms = 0, pause_ms = 0;
  int pings = 0;
  size_t stretch = 0;
  bool makes_socket = false;
  SOCKET s = INVALID_SOCKET;
  int answered = 0;
};

// The client program is there before the game starts.
struct EarlyClient {
  test::ReportClient client;
};

// With everything or nothing mended, and flows that may move.
class ConfiguredWorld : public TcpWorld {
 protected:
  ConfiguredWorld();
  bool IsMended() const { return mended_ != 0; }

 private:
  const moru_vyr::lsp::u32 mended_;
};

class WholeWorld : public EarlyClient, public StreamSwarm<ConfiguredWorld> {
 public:
  WholeWorld(const Course& course, const FaultList& faults, const test::Kept& kept);

  // The whole life of the world, with its expectations.
  void Live();

 private:
  // whole_world.cpp
  void PlanAll();
  void PlanBusy(const Stretch& stretch);
  // A thread of the game that a fault may end, which counts as its end.
  void Player(std::function<void()> body);
  void StartGame(size_t stretch);  // what is planned for that stretch
  void Release();
  void LiveThrough(const Stretch& stretch);
  size_t SocketsWithoutOwner() const;
  size_t HomeStreamSockets() const;
  void CountBlocks();
  void ExpectNothingIsLeft();
  void ExpectNoMoreBlocks();
  bool TimersRest();
  void ExpectPlaysOn();
  void ExpectSilenceIsNoticed();
  std::string NewObjects() const;

  // whole_streams.cpp
  void PlanStream(const Stretch& stretch);
  void PlayStream(Stream* stream);
  void Serve(SOCKET s, Call* call);
  // The end of what one side of a stream does: "done", "left", "reset" or how its stream ended.
  std::string LiveOn(Caller* caller, const Manner& manner, const std::string& says, size_t expects,
                     size_t* sent, std::string* got);

  void ExpectStreams();

  // whole_datagrams.cpp
  void PlanTalker(const Stretch& stretch);
  void PlanDatagram(size_t servers, Talker* talker);
  void Talk(Talker* talker);
  void Send(Talker* talker, size_t id);
  void Read(Talker* talker);
  void StartEcho(const char* ip, int port);
  void ExpectDatagrams();
  void ExpectADatagramIsAnswered();

  // whole_pings.cpp
  void PlanPinger(const Stretch& stretch);
  void PingAll(Pinger* pinger);
  void PingOnce();

  // whole_quiet.cpp
  void PlanQuiet(const Stretch& stretch);
  void PlanHeartbeat(const Stretch& stretch);
  void PlanQuietStream(const Stretch& stretch);
  void PlanQuietPinger(const Stretch& stretch);

  // whole_nodes.cpp
  sim::Host& HostOf(size_t which);
  node::Behaviour& BehaviourOf(size_t which);
  void StartNode(size_t which);
  void NodeBehaves(size_t which, uint64_t variant);
  void NodeDies(size_t which, sim::Duration time);
  void ChangeLink(size_t which, uint64_t variant);

  // whole_client.cpp
  void StartReader();
  void WriteTables(uint64_t variant);
  void ClientHolds(size_t which, sim::Duration time);

  // whole_damage.cpp
  void StartFaults();
  void Apply(const Fault& fault);
  void EndOneOfOurs(const char* thread, unsigned nth);
  void EndGameThread(const Fault& fault);
  void Heal();

  const Course course_;
  const FaultList faults_;
  const test::Kept kept_;
  sim::Host& c_host_ = world.AddHost("c", {kNodeC});
  node::Behaviour c_behaviour_;
  DWORD node_step_ms_ = node::SimNode::kStepMs;
  uint64_t tables_ = 0;  // which the client has written last
  std::vector<sim::Process*> node_processes_;
  std::optional<uint64_t> node_variants_[kNodes];  // of those that misbehave as the play begins
  std::vector<Stream> streams_;
  std::vector<Talker> talkers_;
  std::vector<Pinger> pingers_;
  std::vector<Said> said_;
  struct Heard {
    std::string text, to;
  };
  std::vector<Heard> heard_;
  ReportReader reports_{&client};
  std::optional<LateCalls> late_;
  std::vector<DWORD> players_;             // the ids of the game's threads
  std::deque<std::string> players_names_;  // of those that a fault is to end
  sim::Duration play_begins_{};
  size_t base_sockets_ = 0, base_stream_sockets_ = 0, base_views_ = 0;
  std::map<uintptr_t, std::string> base_objects_;  // the open handles
  std::map<std::string, long> base_blocks_;        // of long play, by who has allocated them
  bool worker_is_ended_ = false, reporter_is_ended_ = false, game_thread_is_ended_ = false;
  bool timers_may_rest_ = false;  // until the tick counter has caught up, which takes seven weeks
  bool timers_rest_ = false;
  bool is_over_ = false;
};

}  // namespace whole_test
