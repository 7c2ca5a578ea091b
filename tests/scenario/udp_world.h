// Datagrams in a relayed world: the game server answers each.
#pragma once
#include "tests/scenario/relayed_world.h"
//
#include <optional>
#include <vector>

#include "abi/mending_formats.h"
#include "abi/restriction_formats.h"

namespace udp_test {

using namespace sim_test;      // NOLINT: the verbs of these tests
using namespace relayed_test;  // NOLINT

inline constexpr char kSecond[] = "198.51.100.13";    // like kServer, but in another data centre
inline constexpr char kUnlisted[] = "198.51.100.14";  // not in the tables, as are kUnlisted + 1 …
inline constexpr int kSecondPort = 27016;

// Makes a server answer with an empty datagram.
inline constexpr char kNoBytes[] = "a datagram of no bytes";

// A datagram as a socket or the game server received it.
struct Datagram {
  std::string text;
  std::string from;       // "198.51.100.10:27015"; at the server "A", "B" or "game"
  std::string from_full;  // at the server only: the sender's address and port
  std::string to;         // at the server only: the destination address and port
};

// Describes what is missing in `got` and what is in it twice; empty if it equals `sent`, in order.
std::string Difference(const std::vector<std::string>& sent, const std::vector<std::string>& got);

class UdpWorld : public sim::ScenarioTest {
 protected:
  // `mended` are the bits of the client's MendingRecord; without one it has no such region.
  explicit UdpWorld(moru_vyr::lsp::u32 mended = 0);

  // --- the game ---
  // Sends one datagram. Returns 0 or the error.
  int Sends(SOCKET s, const std::string& text, const char* ip = kServer, int port = kPort);
  // Receives a datagram within that time; `from` is empty if there was none.
  Datagram Receives(SOCKET s, int ms = 1000);
  // Sends a datagram and returns the answer as "text from 198.51.100.10:27015".
  std::string Talks(SOCKET s, const std::string& text, const char* ip = kServer, int port = kPort);
  void GameThread(std::function<void()> body);
  bool RunToTheEnd(sim::Duration most = std::chrono::minutes(20)) {
    return RunUntil([this] { return running_ == 0; }, most);
  }

  // --- the client program ---
  // Changes the game's configuration. Call it before the game's first socket.
  void Configures(const std::function<void(moru_vyr::lsp::AccConfigRecord*)>& change) {
    game.Configures(change);
  }
  // Enables measuring and switching as in production, with the shortest times.
  void MayMeasureAndSwitch();
  // Opens the game's first socket, which starts the provider. From here on there is a log, of that
  // level and above.
  void Starts(common::u32 log_level = 4);

  // --- what happened ---
  bool Logged(const std::string& part) const { return log_->Contains(part); }
  std::string log_text() const { return log_->Text(); }
  std::string whole_log() const { return log_->Whole(); }
  // The texts that arrived at the server: all, or those from "A", "B" or "game".
  std::vector<std::string> Heard(const std::string& from = "") const;
  std::string AllHeard() const;  // for the message of a failed expectation
  bool NodesAreFree() const;

  test::ClientRegion<moru_vyr::lsp::IpTableRegion> ips{moru_vyr::lsp::kIpTableRegionName};
  test::RouteClient routes;
  test::GameProcess game;
  sim::Host& server_host =
      world.AddHost("server", {kServer, kDirect, kForced, kSecond, "198.51.100.14", "198.51.100.15",
                               "198.51.100.16", "198.51.100.17", "198.51.100.18", "198.51.100.19",
                               "198.51.100.30", "198.51.100.31", "198.51.100.32", "198.51.100.33",
                               "198.51.100.34", "198.51.100.35"});
  sim::Host& a_host = world.AddHost("a", {kNodeA});
  sim::Host& b_host = world.AddHost("b", {kNodeB});
  node::SimNode a{world, a_host, 7001};
  node::SimNode b{world, b_host, 7002};

  // The game server: what it answers (empty: nothing), and what it has received. Shared, because
  // its threads may still run when the test is over.
  struct Server {
    std::function<std::string(const std::string&)> answer = [](const std::string& text) {
      return text;
    };
    std::vector<Datagram> heard;
  };
  const std::shared_ptr<Server> server = std::make_shared<Server>();
  std::vector<Datagram>& heard = server->heard;

 private:
  void WriteTables();
  void StartServer(const std::string& ip, int port);

  std::optional<test::ClientRegion<moru_vyr::lsp::MendingRegion>> mending_;
  std::unique_ptr<test::LogCapture> log_;
  int running_ = 0;
};

}  // namespace udp_test
