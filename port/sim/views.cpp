// Watches threads, instruction by instruction, while they have a view of a mapping.
#include <algorithm>
#include <cstring>

#include "port/shared/backend.h"
#include "port/shared/single_step.h"
#include "port/sim/faults.h"
#include "port/sim/threads.h"

namespace sim {
namespace {

// The view for which the calling thread is watched; at most one at a time.
thread_local const void* watched_view = nullptr;

void Begin(const ViewWatch& watch, const Thread& self, std::span<const uint8_t> view) {
  watched_view = view.data();
  if (!watch.look(view, true)) return;
  // Stepping continues while the thread waits for its turn; changes that are seen then were made by
  // other threads.
  static thread_local std::function<bool()> look;
  look = [&watch, &self, view] {
    return &TheWorld().scheduler().current() != &self || watch.look(view, false);
  };
  port::BeginSteps(&look);
}

}  // namespace

void World::WatchView(Process* process, const std::string& mapping, ViewLook look) {
  if (!port::CanStep()) Fail("this machine cannot stop a thread after each instruction");
  faults_->view_watches.push_back(
      std::make_unique<ViewWatch>(ViewWatch{process, mapping, std::move(look)}));
}

void World::KillAtWrite(Process& process, const std::string& mapping, unsigned nth) {
  auto left = std::make_shared<unsigned>(nth);
  auto seen = std::make_shared<std::vector<uint8_t>>();
  WatchView(&process, mapping, [=, this, &process](std::span<const uint8_t> view, bool is_new) {
    if (is_new) seen->assign(view.begin(), view.end());
    if (std::memcmp(seen->data(), view.data(), view.size()) == 0) return true;
    std::copy(view.begin(), view.end(), seen->begin());
    if (*left > 0 && --*left == 0) Kill(process);
    return true;
  });
}

}  // namespace sim

namespace port {

void OnViewMapped(const std::string& mapping, const void* view, size_t size) {
  if (sim::watched_view != nullptr) return;
  const sim::Thread& self = sim::Self();
  for (const auto& watch : sim::TheWorld().faults().view_watches) {
    const bool meant = watch->process == nullptr || watch->process == self.process();
    if (!meant || watch->mapping != mapping) continue;
    sim::Begin(*watch, self, {static_cast<const uint8_t*>(view), size});
    return;
  }
}

void OnViewUnmapped(const void* view) {
  if (view == nullptr || view != sim::watched_view) return;
  EndSteps();
  sim::watched_view = nullptr;
}

}  // namespace port
