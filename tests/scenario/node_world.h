// A client, a reference node and a game server on three hosts, 10 ms apart.
#pragma once
#include "tests/scenario/sim_sockets.h"
//
#include <functional>
#include <string>

#include "node/sim_node.h"

namespace node_test {

using namespace sim_test;  // NOLINT: the verbs of these tests

inline constexpr char kNode[] = "198.51.100.20";
inline constexpr char kServer[] = "203.0.113.9";
inline constexpr int kServerPort = 27015;
inline constexpr int kAnswerSize = 41;

// The request of docs/wire.md, for 203.0.113.9:27015; user 10001, game 0x500000007.
std::string RequestBytes(int version = 3);
// The same for another server.
std::string RequestFor(const char* ip, int port);

// "result 0, version 3, 41 bytes", or what is wrong with it.
std::string Summary(const std::string& answer);
unsigned Big16(const std::string& bytes, std::size_t at);
unsigned Big32(const std::string& bytes, std::size_t at);

// That many bytes, or fewer if the stream ends; the text may then end with "error …".
std::string ReceivedExactly(SOCKET s, std::size_t size);

class NodeWorld : public sim::ScenarioTest {
 protected:
  void SetUp() override;

  // Each body runs on that host, in a process of its own.
  void OnServer(std::function<void()> body) { Spawn(server_host, "server", std::move(body)); }
  void OnClient(std::function<void()> body) { Spawn(client_host, "client", std::move(body)); }
  void OnNode(std::function<void()> body) { Spawn(node_host, "node", std::move(body)); }
  // Runs until all these bodies have returned; false if they do not.
  bool RunToTheEnd() {
    return RunUntil([this] { return running_ == 0; });
  }

  // Starts an echo server for any number of connections, each until it is closed.
  void StartEchoServer();

  // For clients: opens a connection to the node; the second one also sends the request.
  static SOCKET Joins();
  static SOCKET Asks(int version = 3);
  // A whole exchange: the request, the answer, `text` to the server, and all that comes back.
  static std::string Fetches(const std::string& text, std::string* answer = nullptr);

  sim::Host& client_host = world.AddHost("client", {"192.0.2.77"});
  sim::Host& node_host = world.AddHost("node", {kNode});
  sim::Host& server_host = world.AddHost("server", {kServer});

 private:
  void Spawn(sim::Host& host, const char* name, std::function<void()> body);

  int running_ = 0;
};

}  // namespace node_test
