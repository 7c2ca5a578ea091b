// All flows of a node, found by what their datagrams carry.
#pragma once
#include <functional>
#include <list>
#include <memory>
#include <unordered_map>

#include "node/flow.h"
#include "node/node_context.h"

namespace node {

class FlowTable {
 public:
  explicit FlowTable(NodeContext* node) : node_(node) {}

  // The flow of that client and guid: the existing one for a repeated request, or a new one. Null
  // if there are too many flows or no socket; *error is then a Winsock error.
  Flow* Open(const Address& client, const moru_vyr::lsp::NegoRequestBody& request, u64 now,
             int* error);
  // By the token in a datagram and its sender. Null if it belongs to no flow.
  Flow* Find(u32 token, const Address& client) const;
  Flow* Find(u64 id) const;

  void Close(Flow* flow, const std::string& reason, u64 now);
  u64 CloseAll(const std::string& reason, u64 now);
  void CloseIdle(u64 now);
  // kNever: no flow ends by itself.
  u64 NextIdle() const;

  const std::list<std::unique_ptr<Flow>>& all() const { return flows_; }

 private:
  struct Key {
    u32 token;
    Address client;

    bool operator==(const Key& other) const {
      return token == other.token && client == other.client;
    }
  };
  struct Hash {
    std::size_t operator()(const Key& key) const;
  };

  Flow* FindAgain(const Address& client, const moru_vyr::lsp::SessionGuid& guid) const;
  Socket MakeUpstream(int* error) const;

  NodeContext* const node_;
  std::list<std::unique_ptr<Flow>> flows_;
  std::unordered_map<Key, Flow*, Hash> by_token_;
  std::unordered_map<u64, std::list<std::unique_ptr<Flow>>::iterator> by_id_;
  u64 next_id_ = 1;
};

}  // namespace node
