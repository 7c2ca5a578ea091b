// The watch list, and what is submitted to be reported. If an operation runs out of memory, its
// report is lost, and what it had done until then stays.
#include <windows.h>

#include "common/log.h"
#include "common/net_text.h"
#include "common/text.h"
#include "common/unix_time.h"
#include "tracker/series_code.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

// A direct socket has no proxy, even if the decision names one.
void CopyProxyFigures(const AccDecisionInfo& decision, SocketQosRecord* record) noexcept {
  if (!record->is_acce) return;
  const RouteProxyInfo& proxy = decision.selected_proxy;
  common::SetFieldText(record->proxy_ip, common::FieldText(proxy.proxy_addr));
  record->proxy_port = proxy.proxy_port;
  record->proxy_idc = proxy.proxy_idc;
  record->section1_delay = proxy.section1_delay;
  record->section1_lost = proxy.section1_lost;
  record->section2_delay = proxy.section2_delay;
}

RealNegoRecord MakeRealNego(const SocketQosRecord& socket, u32 last_node_id, u32 last_node_ip,
                            const AccDecisionInfo& decision) noexcept {
  const RouteProxyInfo& proxy = decision.selected_proxy;
  RealNegoRecord record;
  record.used = 1;
  record.game_id = decision.game_id;
  record.user_isp = socket.user_isp;
  record.user_ip = socket.user_ip;
  common::SetFieldText(record.guid, socket.guid);
  record.proxy_id = proxy.proxy_idc;
  common::SetFieldText(record.proxy_ip, common::FieldText(proxy.proxy_addr));
  record.proxy_port = proxy.proxy_port;
  record.last_node_id = last_node_id;
  record.last_node_ip = last_node_ip;
  record.game_ip = decision.game_ip;
  record.game_port = decision.game_port;
  record.stamp = static_cast<u32>(common::UnixTimeMs() / 1000);
  return record;
}

NegRetRecord MakeNegRet(const SocketQosRecord& socket, const AccDecisionInfo& decision) {
  const RouteProxyInfo& proxy = decision.selected_proxy;
  NegRetRecord record;
  record.used = 1;
  record.game_id = decision.game_id;
  record.game_idc = decision.game_idc;
  common::SetFieldText(record.game_ip, common::IpToString(htonl(decision.game_ip)));
  record.game_port = static_cast<u16>(decision.game_port);
  record.proxy_idc = proxy.proxy_idc;
  common::SetFieldText(record.proxy_ip, common::FieldText(proxy.proxy_addr));
  record.proxy_port = proxy.proxy_port;
  record.process_id = GetCurrentProcessId();
  record.user_isp = proxy.user_isp;
  record.header3 = decision.header3;
  record.user_ip = proxy.user_ip;
  common::SetFieldText(record.guid, socket.guid);
  return record;
}

u32 FirstOf(u32 preferred, u32 other) noexcept { return preferred != 0 ? preferred : other; }

// `now` continues from `was`. The probes' figures are of one node alone.
void AddFlow(const SocketQosRecord& was, SocketQosRecord* now) noexcept {
  now->total_recv_bytes += was.total_recv_bytes;
  now->total_sent_bytes += was.total_sent_bytes;
  now->total_recv_packets += was.total_recv_packets;
  now->total_sent_packets += was.total_sent_packets;
  now->total_recv_errors += was.total_recv_errors;
  now->total_sent_errors += was.total_sent_errors;
  now->first_recv_error_code = FirstOf(was.first_recv_error_code, now->first_recv_error_code);
  now->first_send_error_code = FirstOf(was.first_send_error_code, now->first_send_error_code);
  now->curr_recv_error_code = FirstOf(now->curr_recv_error_code, was.curr_recv_error_code);
  now->curr_send_error_code = FirstOf(now->curr_send_error_code, was.curr_send_error_code);
  now->last_send_tick = FirstOf(now->last_send_tick, was.last_send_tick);
  now->last_recv_tick = FirstOf(now->last_recv_tick, was.last_recv_tick);
  now->create_tick = was.create_tick;
  now->direct_delay = was.direct_delay;
  now->direct_lost = was.direct_lost;
  common::SetFieldText(now->game_ip, common::FieldText(was.game_ip));
  now->game_port = was.game_port;
  now->game_idc = was.game_idc;
  now->is_acce = was.is_acce;
}

void Signal(const common::UniqueHandle& event) noexcept {
  if (event) SetEvent(event.get());
}

}  // namespace

SocketQosRecord* Tracker::Find(SOCKET socket) noexcept {
  const auto found = watch_list_.find(socket);
  return found != watch_list_.end() ? &found->second : nullptr;
}

void Tracker::AddToWatchList(SOCKET socket, u32 type, u32 token) noexcept try {
  const auto [place, is_new] = watch_list_.try_emplace(socket);
  if (!is_new) return;
  SocketQosRecord& record = place->second;
  record.socket = socket;
  record.socket_type = type;
  record.token = token;
  record.continuous = true;
  record.create_tick = GetTickCount();
  MakeSeriesCode(socket, record.series_code, sizeof record.series_code);
  LSP_LOG(0, "[Tracker] Add %d to watch list, token=%d", static_cast<int>(socket), Int(token));
} catch (...) {
}

void Tracker::MoveFlow(SOCKET from, SOCKET to, const AccDecisionInfo* decision) noexcept {
  SocketQosRecord* const now = Find(to);
  const auto was = watch_list_.find(from);
  if (now == nullptr || was == watch_list_.end() || from == to) return;
  AddFlow(was->second, now);
  CopyProxyFigures(*decision, now);
  now->guid.swap(was->second.guid);
  now->recovery_info.swap(was->second.recovery_info);
  watch_list_.erase(was);
  LSP_LOG(0, "[Tracker] flow moved from socket=%Id to socket=%Id, token=%d", from, to,
          Int(now->token));
}

void Tracker::MakeClosingUpdate(SocketQosRecord* record) {
  LSP_LOG(0, "[Tracker] update info, is_acce=%s, socket=%Id, token=%d",
          record->is_acce ? "true" : "false", record->socket, Int(record->token));
  UpdateTimes(record);
  if (record->socket_type == kTrackUdp && record->is_acce && record->nego_success) {
    UpdateLoss(&record->speed_test.frontend, true);
    UpdateLoss(&record->speed_test.backend, true);
  }
  record->continuous = false;
}

void Tracker::RemoveFromWatchList(SOCKET socket) noexcept try {
  const auto found = watch_list_.find(socket);
  if (found == watch_list_.end()) return;
  // Taken out first, so that it is gone even if the report cannot be stored.
  const auto node = watch_list_.extract(found);
  SocketQosRecord& record = node.mapped();
  const int token = Int(record.token);
  LSP_LOG(0, "[Tracker] socket closed, socket=%Id, token=%d", socket, token);
  MakeClosingUpdate(&record);
  if (record.is_acce && record.nego_success) {
    common::Lock hold(lists_lock_);
    pending_.final_comm_list.push_back(std::move(record));
    LSP_LOG(0, "[Tracker] acce final comm info submitted, socket=%Id, token=%d", socket, token);
    Signal(qos_ready_event_);
  } else {
    LSP_LOG(0, "[Tracker] direct final comm info ignored, socket=%Id, token=%d", socket, token);
  }
  LSP_LOG(0, "[Tracker] Remove %d from watch list, token=%d", static_cast<int>(socket), token);
} catch (...) {
}

void Tracker::EndWatching() noexcept {
  while (!watch_list_.empty()) RemoveFromWatchList(watch_list_.begin()->first);
}

void Tracker::NoteGameServer(SOCKET socket, const char* ip, u16 port) noexcept {
  if (ip == nullptr) return;
  SocketQosRecord* const record = Find(socket);
  if (record == nullptr) return;
  LSP_LOG(0, "[Tracker] Ready to Connect to game server socket=%Id, ip=%s, port=%d,token=%d",
          socket, ip, int{ntohs(port)}, Int(record->token));
  common::SetFieldText(record->game_ip, ip);
  record->game_port = ntohs(port);
}

void Tracker::SetAcceInfo(SOCKET socket, bool is_acce, const AccDecisionInfo* decision) noexcept
    try {
  SocketQosRecord* const record = Find(socket);
  if (record == nullptr) {
    LSP_LOG(4, "[Tracker] set acce can not find socket");
    return;
  }
  LSP_LOG(0, "[Tracker] Socket Base Acce Information saved socket=%Id, is_acce=%d, token=%d",
          socket, is_acce ? 1 : 0, Int(record->token));
  record->is_acce = is_acce;
  record->game_idc = decision->game_idc;
  record->direct_delay = decision->direct_delay;
  record->direct_lost = decision->direct_lost;
  CopyProxyFigures(*decision, record);
  record->guid = common::FieldText(decision->guid);
  // Acceleration may still fail, so that decision is reported once the node has agreed.
  if (is_acce) return;
  common::Lock hold(lists_lock_);
  pending_.decision_list.push_back(*decision);
  LSP_LOG(0, "[Tracker] decision info(not acce) qos submitted, socket=%Id, token=%d", socket,
          Int(record->token));
  Signal(qos_ready_event_);
} catch (...) {
}

void Tracker::RecordNegSuccess(SOCKET socket, u32 user_isp, u32 user_ip, u32 last_node_id,
                               u32 last_node_ip, const AccDecisionInfo* decision) noexcept try {
  SocketQosRecord* const record = Find(socket);
  if (record == nullptr) return;
  LSP_LOG(0, "[Tracker] Nego Success socket=%Id, token=%d, type=%d", socket, Int(record->token),
          Int(record->socket_type));
  record->nego_success = true;
  record->user_isp = user_isp;
  record->user_ip = user_ip;
  CopyProxyFigures(*decision, record);
  const RealNegoRecord real_nego = MakeRealNego(*record, last_node_id, last_node_ip, *decision);
  {
    common::Lock hold(lists_lock_);
    pending_.decision_list.push_back(*decision);
    LSP_LOG(0, "[Tracker] decision info(will acce) qos submitted, socket=%Id, token=%d", socket,
            Int(record->token));
    pending_.real_nego_list.push_back(real_nego);
    Signal(qos_ready_event_);
  }
  SnapshotCommInfo(false);
} catch (...) {
}

void Tracker::RecordNegFailed(SOCKET socket, i32 neg_type, u32 nego_result,
                              const AccDecisionInfo* decision, u32 elapsed_ms, u32 tries) noexcept
    try {
  const DWORD last_error = GetLastError();
  SocketQosRecord* const record = Find(socket);
  if (record == nullptr) return;
  LSP_LOG(0, "[Tracker] RecordNegFailed socket=%Id, neg_type=%d, nego_result=%d, token=%d", socket,
          int{neg_type}, Int(nego_result), Int(record->token));
  record->nego_success = false;
  NegRetRecord neg_ret = MakeNegRet(*record, *decision);
  neg_ret.neg_type = neg_type;
  neg_ret.nego_result = Int(nego_result);
  neg_ret.last_error = last_error;
  neg_ret.nego_count = tries;
  neg_ret.elapsed_ms = elapsed_ms;
  common::Lock hold(lists_lock_);
  pending_.neg_ret_list.push_back(neg_ret);
  LSP_LOG(0, "[Tracker] nego ret qos submitted, socket=%Id, token=%d", socket, Int(record->token));
  Signal(qos_ready_event_);
} catch (...) {
}

void Tracker::SetRecoveryInfo(SOCKET socket, const char* text) noexcept try {
  SocketQosRecord* const record = Find(socket);
  if (record == nullptr) {
    LSP_LOG(4, "[Tracker] set recovery can not find socket");
    return;
  }
  record->recovery_info = text;
  LSP_LOG(0, "socket record recovery switch info=%s", text);
} catch (...) {
}

void Tracker::SubmitRecoverySwitch(const RecoverySwitchRecord* record) noexcept try {
  common::Lock hold(lists_lock_);
  pending_.recovery_list.push_back(*record);
  LSP_LOG(0, "[Tracker]  recovery switch qos submitted, game_id=%llu, guid=%s",
          static_cast<unsigned long long>(record->game_id), record->guid);
  Signal(qos_ready_event_);
} catch (...) {
}

}  // namespace moru_vyr::lsp
