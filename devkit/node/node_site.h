// /metrics and /health of a node.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "common/lock.h"
#include "http/server.h"
#include "node/node_figures.h"

namespace node {

// The node's thread leaves its figures here, and the server's thread writes them out.
class NodeSite : public http::Site {
 public:
  explicit NodeSite(std::string version) : version_(std::move(version)) {}

  // What the node's thread calls between its steps, as often as it likes: only now and then is it
  // more than a look at the clock.
  void Leave(const NodeFigures& ended, const Node& node);

  std::optional<http::Reply> Get(std::string_view path) override;

 private:
  http::Reply Health();

  const std::string version_;
  u32 left_tick_ = 0;  // of the node's thread alone
  bool has_left_ = false;
  common::Mutex mutex_;  // of what follows; held for a copy
  NodeFigures figures_;
  u32 tick_ = 0;
};

}  // namespace node
