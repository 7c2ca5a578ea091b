#include "client/serve/spur_notifier.h"

#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <string>

namespace client {

size_t SpurNotifier::Notify(const std::set<unsigned long>& pids) {
  std::erase_if(events_, [&](const auto& event) { return !pids.contains(event.first); });
  size_t signalled = 0;
  for (const unsigned long pid : pids) {
    const std::string name = "spur_iplist_change_notify_" + std::to_string(pid);
    common::UniqueHandle& event = events_[pid];
    if (!event) event.Reset(CreateEventA(nullptr, FALSE, FALSE, name.c_str()));
    if (event && SetEvent(event.get())) ++signalled;
  }
  return signalled;
}

}  // namespace client
