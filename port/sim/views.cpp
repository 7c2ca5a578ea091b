// Watches threads, instruction by instruction, while they have a view of a mapping.
#include <algorithm>
#include <cstring>

#include "port/shared/backend.h"
#include "port/shared/single_step.h"
#include "port/sim/faults.h"
#include "port/sim/threads.h"

namespace sim {
namespace {

void Begin(const ViewWatch& watch, Thread& self, std::span<const uint8_t> view) {
  self.watched_view = view.data();
  if (!watch.look(view, true)) return;
  // The thread is stepped while it hands the turn on, too, when it is no longer the current one.
  self.look = [&watch, &self, view] {
    return &TheWorld().scheduler().current() != &self || watch.look(view, false);
  };
  port::BeginSteps(&self.look);
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
  sim::Thread& self = sim::Self();
  if (self.watched_view != nullptr) return;
  for (const auto& watch : sim::TheWorld().faults().view_watches) {
    const bool meant = watch->process == nullptr || watch->process == self.process();
    if (!meant || watch->mapping != mapping) continue;
    sim::Begin(*watch, self, {static_cast<const uint8_t*>(view), size});
    return;
  }
}

void OnViewUnmapped(const void* view) {
  if (view == nullptr) return;
  sim::Thread& self = sim::Self();
  if (view != self.watched_view) return;
  EndSteps();
  self.watched_view = nullptr;
}

}  // namespace port
