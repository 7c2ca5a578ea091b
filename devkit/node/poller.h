// Waits for any number of sockets with select, which itself handles at most FD_SETSIZE of them.
#pragma once
#include <winsock2.h>

#include <vector>

#include "node/socket.h"

namespace node {

// What is taken from one socket before others have their turn.
inline constexpr int kInARow = 64;

struct Readiness {
  bool read = false;
  bool write = false;
  bool except = false;  // on a connecting socket: it failed

  bool any() const { return read || write || except; }
};

class Poller {
 public:
  // Clears the requests and the results.
  void Clear();
  // Each socket once; it is allowed to want nothing.
  void Want(SOCKET socket, Readiness wanted);
  // Waits until something is ready, `most_ms` at most. False: a select failed.
  bool Wait(u32 most_ms);
  // What the last Wait found.
  Readiness Of(SOCKET socket) const;

 private:
  struct Group {
    fd_set read, write, except;
    unsigned sockets = 0;
  };

  // The number of ready sockets, or SOCKET_ERROR with nothing left in the sets.
  static int Select(Group* group, u32 most_ms);

  std::vector<Group> groups_;
  std::vector<Group> seen_;
};

}  // namespace node
