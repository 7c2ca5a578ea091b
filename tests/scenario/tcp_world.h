// Connections in a relayed world: the game server accepts connections.
#pragma once
#include "tests/scenario/relayed_world.h"
//
#include <list>

namespace tcp_test {

using namespace sim_test;      // NOLINT: the verbs of these tests
using namespace relayed_test;  // NOLINT

inline constexpr char kUnlisted[] = "198.51.100.13";  // not in the tables
inline constexpr char kAlone[] = "198.51.100.14";     // through A, or else through no node
inline constexpr int kNobodysPort = 27016;

// For scenarios in which the worker polls without a pause: the clock advances after a few polls, so
// other threads can run.
inline sim::Options QuickSpin() {
  sim::Options options;
  options.preempt_percent = 10;
  options.spin_steps = 20;
  return options;
}

inline constexpr unsigned kQuietSelects =
    160;  // in a second: 50 each for the relay and the two nodes, and a margin

// A connection as the game server sees it.
struct Call {
  std::string from;  // "A", "B", "game"
  std::string got;   // all bytes so far
  std::string end;   // "closed" or "error N" once it has ended
  bool over() const { return !end.empty(); }
};

// Sends all of the text. Returns how much was accepted before the connection failed.
size_t SendAll(SOCKET s, const std::string& text);
// Appends that many bytes to *got. False, with *end set, if the stream ends before that.
bool Collect(SOCKET s, size_t size, std::string* got, std::string* end);
// Reads to the end of the stream. Returns "closed" or "error N".
std::string CollectAll(SOCKET s, std::string* got);
void Echo(SOCKET s, Call* call);

class TcpWorld : public sim::ScenarioTest {
 protected:
  using Configure = std::function<void(moru_vyr::lsp::AccConfigRecord*)>;

  // `path` is the game's path, if it matters; `configure` changes other fields of its record;
  // `mended` are the bits of the client's MendingRecord, without which there is no such region.
  explicit TcpWorld(const std::wstring& path = L"", const Configure& configure = nullptr,
                    moru_vyr::lsp::u32 mended = 0);

  // --- the game ---
  // A connected socket, or INVALID_SOCKET.
  SOCKET Joins(const char* server = kServer, int port = kPort);
  // Sends the text and returns its echo, as far as it arrives.
  std::string Talks(SOCKET s, const std::string& text);
  // Starts another thread of the game.
  void GameThread(std::function<void()> body);
  bool RunToTheEnd(sim::Duration most = std::chrono::minutes(20)) {
    return RunUntil([this] { return running_ == 0; }, most);
  }

  // --- what happened ---
  Call& LastCall() { return calls.back(); }
  bool Logged(const std::string& part) const { return log_->Contains(part); }
  std::string log_text() const { return log_->Text(); }
  // Whether both nodes have seen the end of every connection that they accepted.
  bool NodesAreFree() const;
  // Waits until all connections have ended, and checks that a new one works.
  void ExpectServesAgain();

  test::ClientRegion<moru_vyr::lsp::IpTableRegion> ips{moru_vyr::lsp::kIpTableRegionName};
  test::RouteClient routes;
  test::GameProcess game;
  sim::Host& server_host = world.AddHost("server", {kServer, kDirect, kForced, kUnlisted, kAlone});
  sim::Host& a_host = world.AddHost("a", {kNodeA});
  sim::Host& b_host = world.AddHost("b", {kNodeB});
  node::SimNode a{world, a_host, 7001};
  node::SimNode b{world, b_host, 7002};

  // What the game server does with a connection, in a thread of its own, before it closes the
  // connection.
  std::function<void(SOCKET, Call*)> serve = Echo;
  std::list<Call> calls;

 private:
  void WriteTables();
  void StartServer();

  std::unique_ptr<test::LogCapture> log_;
  int running_ = 0;
};

}  // namespace tcp_test
