// `vyr_client watch`: takes reports out and shows them.
#pragma once

#include <csignal>
#include <string>

#include "client/watch/live_view.h"

namespace client {

struct WatchOptions {
  bool json = false;
  bool follow = false;
  bool top = false;
  std::string page;  // write an HTML page there; empty: none
  std::string from;  // read reports from this file of JSON lines instead of the regions
};

// True if all went well. With `follow` or `top` it runs until *ended is set, and so it does with a
// live view, which may be null.
bool Watch(const WatchOptions& options, const volatile std::sig_atomic_t* ended,
           LiveView* live = nullptr);

}  // namespace client
