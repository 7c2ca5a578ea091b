// A relayed datagram flow without its worker: the session and its sockets are the real ones, and
// the test acts as the loop, the nodes and the game, step by step. So a test decides what each
// queue contains at each step.
//
// Everything runs on the director's thread and on one host.
#pragma once
#include "tests/scenario/sim_sockets.h"
//
#include <atomic>
#include <iterator>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "protocol/nego_request.h"
#include "protocol/nego_response.h"
#include "tests/scenario/relayed_world.h"
#include "tests/support/report_client.h"
#include "udp/udp_provider.h"
#include "udp/udp_remote_session.h"
#include "udp/udp_session.h"
#include "udp/udp_switch_remote_session.h"

namespace moru_vyr::lsp {

// For failed assertions.
inline void PrintTo(SwitchResult result, std::ostream* out) {
  static constexpr const char* kNames[] = {"kTakenOver",          "kNoRoute",
                                           "kNotAsked",           "kNegotiationFailed",
                                           "kVerificationFailed", "kNotOpen"};
  const auto value = static_cast<std::size_t>(result);
  *out << (value < std::size(kNames) ? kNames[value] : std::to_string(value));
}

}  // namespace moru_vyr::lsp

namespace switch_test {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using common::i32;
using common::u16;
using common::u32;
using common::u8;
using namespace sim_test;  // NOLINT: the verbs of these tests

using relayed_test::kServer;
inline constexpr char kForcedServer[] = "198.51.100.12";
inline constexpr int kServerPort = 27015;
inline constexpr u32 kToken = 77;
inline constexpr u16 kLastNode = 61;
inline constexpr int kGameBuffer = 32768;  // of the game's socket, in bytes

using Outcomes = std::vector<SwitchResult>;

// One pass calls every socket that is readable, then those that wait until they are writable.
class Loop : public IRelaySocketMgr {
 public:
  u32 AddSocket(SOCKET socket, IRelaySocketDelegate* delegate) noexcept override {
    return delegates.emplace(socket, delegate).second ? 0 : 1;
  }
  u32 EnableWrite(SOCKET socket) noexcept override { return wants_room.insert(socket).second; }
  void StopReading(SOCKET) noexcept override {}
  IRelaySocketDelegate* RemoveSocket(SOCKET socket) noexcept override;
  u32 NextToken() noexcept override { return ++tokens_; }
  void UpdateWithin(u32) noexcept override { ++early_updates; }

  void Pass();
  bool Has(SOCKET socket) const { return delegates.count(socket) != 0; }

  std::map<SOCKET, IRelaySocketDelegate*> delegates;
  std::set<SOCKET> wants_room;
  int early_updates = 0;  // that were asked for

 private:
  u32 tokens_ = 0;
};

// A datagram of a flow as a node receives it.
struct Wrapped {
  u8 flags = 0, lost = 0;
  u32 seq = 0, accl_token = 0;
  std::string payload;  // of a data datagram
  u32 game_ip = 0;      // host byte order
  int game_port = 0;
  bool IsData() const { return flags == 0; }
  bool IsEnd() const { return flags == 4; }
  bool IsProbe() const { return flags == 8; }
};

// A node that sends only what the test tells it to. It has ports for negotiation and data, and one
// for neither.
class ScriptedNode {
 public:
  explicit ScriptedNode(int port, u32 accl_token);

  // The fields that a test may set in an answer.
  struct Answer {
    u8 result = 0;
    u32 version = 3;
    u32 isp = 1;
    u16 last_node = kLastNode;
    int data_port = 0;  // 0: the node's data port
  };
  // Whether there was a request, which is then in `request`.
  bool IsAsked();
  void Answers(const Answer& with);
  void Answers() { Answers(Answer{}); }
  void AnswersFromTheWrongPort();
  void AnswersBytes(const std::string& bytes);

  // Everything that has arrived at the data port since the last call. Probes are kept for
  // AnswersProbes.
  std::vector<Wrapped> Takes();
  std::string TakenData();                   // the data among these, "one two"
  int TakenEnds();                           // the end messages among these
  void AnswersProbes(u8 relay_idx = 0);      // those taken since the last time
  void ForgetsProbes() { probes_.clear(); }  // leaves them unanswered
  void SendsData(const std::string& text, u32 seq = 0, u8 lost = 101);  // seq 0: the next number
  void SendsRaw(const std::string& bytes) { Send(data_, bytes, peer_); }
  void SendsDataFromTheWrongPort(const std::string& text);
  // The sender of the last datagram to the data port; before the first one, of the request.
  std::string DataBytes(const std::string& text, u32 seq, u8 lost) const;
  // The answer of a single relay to a probe that was sent that long ago.
  std::string LateProbeAnswer(u32 seq, u32 delay_ms) const;

  NegoRequest request;
  const u32 accl_token;
  u32 next_seq = 1;

 private:
  static void Send(SOCKET from, const std::string& bytes, const sockaddr_in& to);
  std::string AnswerBytes(const Answer& with) const;

  SOCKET nego_, data_, other_;
  int port_;
  sockaddr_in asker_ = {}, peer_ = {};
  std::vector<std::string> probes_;
};

class SwitchWorld : public sim::ScenarioTest {
 protected:
  explicit SwitchWorld(const char* server_ip = kServer);
  ~SwitchWorld() override;

  // Installs the configuration and the tables, and creates the flow, which sends a request to node
  // A.
  void Begins();
  // The same, and A accepts and carries the flow.
  void IsCarried(const ScriptedNode::Answer& with);
  void IsCarried() { IsCarried(ScriptedNode::Answer{}); }

  // One pass of the worker: the loop, then the timer.
  void Turn(u32 ms = 30);
  void Turns(int count, u32 ms = 30) {
    for (int i = 0; i < count; ++i) Turn(ms);
  }
  // Passes in which both nodes answer each probe at once, and A echoes data.
  void HealthyTurns(int count, u32 ms = 30);

  // --- the game ---
  void GameSends(const std::string& text);
  std::string GameGets();  // "one two"

  // --- a switch ---
  bool Fires();  // requests a switch as the judge does, with a report of its own
  UdpSwitchRemoteSession* Trial() const;  // null: no trial is on the loop
  SOCKET TrialSocket() const;             // INVALID_SOCKET: none
  // Brings the trial to the point where B has answered and the burst runs.
  void IsVerifying();
  // … where B has passed the burst.
  void IsVerified();
  // … where B carries the flow.
  void IsTakenOver();
  // The results in the log so far, in order.
  Outcomes Results() const;
  int Count(const std::string& part) const;
  // What the Tracker has counted on the socket, such as "2 sent, 1 received"; "nothing" if it does
  // not watch it.
  static std::string Counted(SOCKET socket);
  bool Logged(const std::string& part) const { return log->Contains(part); }

  AccConfig config;
  RouteTableImage image;
  test::RouteClient routes;
  Route route;
  Loop loop;
  std::atomic<bool> stopping = false;
  UdpProvider provider{stopping};
  sockaddr_in server_addr;
  SOCKET game = INVALID_SOCKET;
  ScriptedNode a{7001, 0xA1}, b{7002, 0xB2};
  std::unique_ptr<test::LogCapture> log;
  std::unique_ptr<UdpSession> session;
  UdpRemoteSession* flow = nullptr;  // owned by the session
  SOCKET local_sock = INVALID_SOCKET;
};

}  // namespace switch_test
