#include "node/flow_table.h"

#include <algorithm>
#include <cstring>

#include "node/delay_line.h"

namespace node {

using moru_vyr::lsp::NegoRequestBody;
using moru_vyr::lsp::SessionGuid;

std::size_t FlowTable::Hash::operator()(const Key& key) const {
  const u64 mixed = (u64{key.client.ip} << 32 | u64{key.client.port} << 16) ^ key.token;
  return std::hash<u64>()(mixed * 0x9E3779B97F4A7C15);
}

Flow* FlowTable::Find(u32 token, const Address& client) const {
  const auto found = by_token_.find({token, client});
  return found != by_token_.end() ? found->second : nullptr;
}

Flow* FlowTable::Find(u64 id) const {
  const auto found = by_id_.find(id);
  return found != by_id_.end() ? found->second->get() : nullptr;
}

Flow* FlowTable::FindAgain(const Address& client, const SessionGuid& guid) const {
  for (const auto& flow : flows_)
    if (flow->client == client && std::memcmp(&flow->request.guid, &guid, sizeof guid) == 0)
      return flow.get();
  return nullptr;
}

Socket FlowTable::MakeUpstream(int* error) const {
  if (flows_.size() >= node_->limits.flows) {
    *error = WSAENOBUFS;
    return Socket();
  }
  return Socket::Datagram({node_->source_ip, 0}, error);
}

Flow* FlowTable::Open(const Address& client, const NegoRequestBody& request, u64 now, int* error) {
  *error = 0;
  if (Flow* const again = FindAgain(client, request.guid)) return again;
  Socket upstream = MakeUpstream(error);
  if (!upstream.open()) return nullptr;
  const u32 token = node_->MakeToken();
  // A fixed token may stand for another flow of the same client.
  if (Flow* const other = Find(token, client)) Close(other, "its token went to another flow", now);
  flows_.push_back(std::make_unique<Flow>(next_id_++, token, client, request, std::move(upstream),
                                          static_cast<u64>(node_->behaviour->seed), now));
  Flow* const flow = flows_.back().get();
  flow->WritesTo(request.game_ip);
  by_token_[{token, client}] = flow;
  by_id_[flow->id] = std::prev(flows_.end());
  char guid[SessionGuid::kTextSize];
  Event event = flow->Tell("flow_opened");
  event.With("client", client.Text())
      .With("game", Address{request.game_ip, request.game_port}.Text())
      .With("guid", request.guid.ToString(guid, sizeof guid))
      .With("token", token)
      .With("from", flow->upstream.Local().Text());
  flow->DescribeOrigin(&event);
  node_->emit(event);
  return flow;
}

void FlowTable::Close(Flow* flow, const std::string& reason, u64 now) {
  node_->emit(flow->Describe("flow_closed")
                  .With("upload_loss", flow->upload.Percent(now))
                  .With("reason", reason)
                  .With("after_ms", now - flow->opened_at));
  by_token_.erase({flow->token, flow->client});
  const auto place = by_id_.find(flow->id);
  flows_.erase(place->second);
  by_id_.erase(place);
}

u64 FlowTable::CloseAll(const std::string& reason, u64 now) {
  const u64 count = flows_.size();
  while (!flows_.empty()) Close(flows_.front().get(), reason, now);
  return count;
}

u64 FlowTable::NextIdle() const {
  u64 due = DelayLine::kNever;
  for (const auto& flow : flows_) due = std::min(due, flow->active_at + node_->limits.flow_idle_ms);
  return due;
}

void FlowTable::CloseIdle(u64 now) {
  for (auto next = flows_.begin(); next != flows_.end();) {
    Flow* const flow = (next++)->get();
    if (now - flow->active_at >= node_->limits.flow_idle_ms)
      Close(flow, "the client is silent", now);
  }
}

}  // namespace node
