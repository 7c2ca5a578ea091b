// The node's control port: JSON lines in, one reply line for each, in order.
#pragma once
#include <list>
#include <string>

#include "node/control_command.h"
#include "node/poller.h"
#include "node/socket.h"

namespace node {

class ControlPort {
 public:
  static constexpr std::size_t kMostClients = 8;
  static constexpr std::size_t kLongestLine = 64 * 1024;
  // A client that leaves more than this of its replies unread is dropped.
  static constexpr std::size_t kMostUnread = 1024 * 1024;

  explicit ControlPort(ControlTarget target) : target_(std::move(target)) {}

  // 0 or the error.
  int Listen(const Address& address);
  bool listening() const { return listener_.open(); }
  Address Local() const { return listener_.Local(); }

  void Want(Poller* poller) const;
  void Step(const Poller& poller);

 private:
  struct Client {
    Socket stream;
    std::string in = {};
    std::string out = {};
    bool ended = false;  // has sent its last line; is closed once all replies are sent
  };

  void Accept();
  void Read(Client* client);
  void RunLines(Client* client);
  void Write(Client* client);

  const ControlTarget target_;
  Socket listener_;
  std::list<Client> clients_;
};

}  // namespace node
