// `vyr_client watch --serve`.
#pragma once

#include <csignal>
#include <string>
#include <vector>

#include "client/watch/watch.h"

namespace client {

struct ServeOptions {
  std::string at;  // ADDRESS:PORT; empty: nothing is served
  bool allow_remote = false;
  std::vector<std::string> allowed_hosts;  // names, besides addresses and localhost
};

// What is wrong with them, in words; empty if nothing.
std::string ProblemOf(const ServeOptions& options);

// Watches as `Watch` does, until *ended is set, and serves the page meanwhile. Says where.
bool WatchServed(WatchOptions watch, const ServeOptions& options, const std::string& version,
                 const volatile std::sig_atomic_t* ended);

}  // namespace client
