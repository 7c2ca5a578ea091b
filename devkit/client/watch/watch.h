// `vyr_client watch`: takes reports out and shows them.
#pragma once

#include <csignal>
#include <string>

namespace client {

struct WatchOptions {
  bool json = false;
  bool follow = false;
  bool top = false;
  std::string page;  // write an HTML page there; empty: none
  std::string from;  // read reports from this file of JSON lines instead of the regions
};

// True if all went well. With `follow` or `top` it runs until *ended is set.
bool Watch(const WatchOptions& options, const volatile std::sig_atomic_t* ended);

}  // namespace client
