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

inline constexpr char kSecond[] = "198.51.100.13";    // as kServer, another data centre's
inline constexpr char kUnlisted[] = "198.51.100.14";  // not in the tables, as are kUnlisted + 1 …
inline constexpr int kSecondPort = 27016;

// Makes a server answer with an empty datagram.
inline constexpr char kNoBytes[] = "a datagram of no bytes";

// A datagram as it came to a socket, or to the game server.
struct Datagram {
  std::string text;
  std::string from;       // "198.51.100.10:27015"; of the server's, "A", "B" or "game"
  std::string from_full;  // of the server's, with the port
  std::string to;         // of the server's, the address that it was sent to, with the port
};

// Names what is missing in `got` and what is in it twice; empty if it equals `sent`, in order.
std::string Difference(const std::vector<std::string>& sent, const std::vector<std::string>& got);

class UdpWorld : public sim::ScenarioTest {
 protected:
  // `mended` are the bits of the client's MendingRecord; without one it has no such region.
  explicit UdpWorld(moru_vyr::lsp::u32 mended = 0);

  // --- the game ---
  // One datagram; 0 or the error.
  int Sends(SOCKET s, const std::string& text, const char* ip = kServer, int port = kPort);
  // What comes within that time; `from` is empty if nothing did.
  Datagram Receives(SOCKET s, int ms = 1000);
  // "text from 198.51.100.10:27015" of what comes back.
  std::string Talks(SOCKET s, const std::string& text, const char* ip = kServer, int port = kPort);
  void GameThread(std::function<void()> body);
  bool RunToTheEnd(sim::Duration most = std::chrono::minutes(20)) {
    return RunUntil([this] { return running_ == 0; }, most);
  }

  // --- the client program ---
  // Changes the game's configuration; before the game's first socket.
  void Configures(const std::function<void(moru_vyr::lsp::AccConfigRecord*)>& change) {
    game.Configures(change);
  }
  // Measuring and switching as in production, and as fast as possible.
  void MayMeasureAndSwitch();
  // The game's first socket starts the provider; from here on there is a log, of everything from
  // that level on.
  void Starts(common::u32 log_level = 4);

  // --- what happened ---
  bool Logged(const std::string& part) const { return log_->Contains(part); }
  std::string log_text() const { return log_->Text(); }
  std::string whole_log() const { return log_->Whole(); }
  // The texts that reached the server: all, or those from "A", "B" or "game".
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

  // The game server: what it answers (empty: nothing), and what it has received. Its threads may
  // still run when the test is over.
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
