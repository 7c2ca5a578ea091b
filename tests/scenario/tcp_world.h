// Connections in a relayed world: the game server accepts connections.
#pragma once
#include "tests/scenario/relayed_world.h"
//
#include <list>


namespace tcp_test {

using namespace sim_test;      // NOLINT: the verbs of these tests
using namespace relayed_test;  // NOLINT

inline constexpr char kUnlisted[] = "198.51.100.13";  // not in the tables
inline constexpr char kAlone[] = "198.51.100.14";     // through A, or else none
inline constexpr int kNobodysPort = 27016;

// For scenarios in which the worker polls without a pause: polls then take little time, and
// other threads get their turn.
inline sim::Options QuickSpin() {
  sim::Options options;
  options.preempt_percent = 10;
  options.spin_steps = 20;
  return options;
}

inline constexpr unsigned kQuietSelects =
    160;  // in a second: 50 each of the relay and two nodes, and some

// A connection as the game server sees it.
struct Call {
  std::string from;  // "A", "B", "game"
  std::string got;   // every byte so far
  std::string end;   // once it has ended: "closed", or "error N"
  bool over() const { return !end.empty(); }
};

// Sends all of it; how much was taken before the connection failed.
size_t SendAll(SOCKET s, const std::string& text);
// Appends that many bytes to *got; false, with *end set, if the stream ends before.
bool Collect(SOCKET s, size_t size, std::string* got, std::string* end);
// To the end of the stream; "closed" or "error N".
std::string CollectAll(SOCKET s, std::string* got);
void Echo(SOCKET s, Call* call);

class TcpWorld : public sim::ScenarioTest {
 protected:
  using Configure = std::function<void(moru_vyr::lsp::AccConfigRecord*)>;

  // The game's own path, if it matters, and other fields of its record. `mended` are the bits of
  // the client's MendingRecord; without one it has no such region.
  explicit TcpWorld(const std::wstring& path = L"", const Configure& configure = nullptr,
                    moru_vyr::lsp::u32 mended = 0);

  // --- the game ---
  // Connected, or INVALID_SOCKET.
  SOCKET Joins(const char* server = kServer, int port = kPort);
  // The echo of what was sent, as far as it comes.
  std::string Talks(SOCKET s, const std::string& text);
  // Another thread of the game's.
  void GameThread(std::function<void()> body);
  bool RunToTheEnd(sim::Duration most = std::chrono::minutes(20)) {
    return RunUntil([this] { return running_ == 0; }, most);
  }

  // --- what happened ---
  Call& LastCall() { return calls.back(); }
  bool Logged(const std::string& part) const { return log_->Contains(part); }
  std::string log_text() const { return log_->Text(); }
  // Both nodes have seen the end of every connection that they accepted.
  bool NodesAreFree() const;
  // Waits until everything is over, and checks that a new connection works.
  void ExpectServesAgain();

  test::ClientRegion<moru_vyr::lsp::IpTableRegion> ips{moru_vyr::lsp::kIpTableRegionName};
  test::RouteClient routes;
  test::GameProcess game;
  sim::Host& server_host = world.AddHost("server", {kServer, kDirect, kForced, kUnlisted, kAlone});
  sim::Host& a_host = world.AddHost("a", {kNodeA});
  sim::Host& b_host = world.AddHost("b", {kNodeB});
  node::SimNode a{world, a_host, 7001};
  node::SimNode b{world, b_host, 7002};

  // What the game server does with a connection, in a thread of its own, before it closes it.
  std::function<void(SOCKET, Call*)> serve = Echo;
  std::list<Call> calls;

 private:
  void WriteTables();
  void StartServer();

  std::unique_ptr<test::LogCapture> log_;
  int running_ = 0;
};

}  // namespace tcp_test
