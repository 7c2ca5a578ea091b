#include "client/watch/report_fields.h"

#include <array>
#include <iterator>

#include "abi/report_records.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

#define FIELD(Record, form, field) \
  { #field, Form::form, offsetof(Record, field), sizeof(Record::field) }
#define INNER(Record, field, inner) \
  { #field, Form::kRecord, offsetof(Record, field), sizeof(Record::field), 0, &inner }

#define F(form, field) FIELD(RouteProxyInfo, form, field)
constexpr ReportField kProxyFields[] = {
    F(kUnsigned, type),
    F(kUnsigned, flag),
    F(kText, proxy_addr),
    F(kUnsigned, proxy_port),
    F(kUnsigned, proxy_idc),
    F(kUnsigned, proxy_isp),
    F(kText, proxy_name),
    F(kUnsigned, section1_delay),
    F(kUnsigned, section1_lost),
    F(kUnsigned, to_proxy_speed_isp),
    F(kUnsigned, to_proxy_speed_ip),
    F(kUnsigned, user_isp),
    F(kIp, user_ip),
    F(kUnsigned, surport_isps),
    F(kUnsigned, version),
    F(kUnsigned, decision),
    F(kUnsigned, section2_delay),
    F(kUnsigned, section2_lost),
    F(kUnsigned, last_node),
};
#undef F
constexpr ReportShape kProxy = {sizeof(RouteProxyInfo), kProxyFields};

constexpr ReportField kGltFields[] = {
    FIELD(GltRouteInfo, kUnsigned, game_idc),
    FIELD(GltRouteInfo, kHex, glt_head),
    INNER(GltRouteInfo, proxy, kProxy),
};
constexpr ReportShape kGlt = {sizeof(GltRouteInfo), kGltFields};

#define F(form, field) FIELD(AccDecisionInfo, form, field)
constexpr ReportField kDecisionFields[] = {
    F(kUnsigned, used),
    F(kText, guid),
    F(kSigned, acc_reason),
    F(kUnsigned, game_id),
    F(kUnsigned, zone_id),
    F(kUnsigned, net_mode),
    F(kUnsigned, process_id),
    F(kUnsigned, socket),
    F(kSigned, socket_type),
    F(kIpOfHost, game_ip),
    F(kUnsigned, game_port),
    F(kUnsigned, game_idc),
    F(kUnsigned, entry_word3),
    F(kUnsigned, entry_word4),
    F(kText, entry_name),
    F(kUnsigned, entry_word21),
    F(kUnsigned, direct_delay),
    F(kUnsigned, direct_lost),
    F(kUnsigned, header0),
    F(kUnsigned, header1),
    F(kUnsigned, header2),
    F(kUnsigned, entry_word0),
    F(kUnsigned, entry_word1),
    F(kUnsigned, header3),
    {"top_proxy", Form::kRecord, offsetof(AccDecisionInfo, top_proxy), sizeof(RouteProxyInfo),
     std::size(AccDecisionInfo{}.top_proxy), &kProxy},
    INNER(AccDecisionInfo, selected_proxy, kProxy),
    F(kUnsigned, game_launch_test_use),
    INNER(AccDecisionInfo, glt_route_info, kGlt),
    F(kUnsigned, glt_word),
};
#undef F

#define F(Stats, field) FIELD(Stats, kUnsigned, field)
constexpr ReportField kFineFields[] = {F(FineStats, delay_avg),  F(FineStats, delay_max),
                                       F(FineStats, delay_min),  F(FineStats, delay_amp),
                                       F(FineStats, total_recv), F(FineStats, total_send)};
constexpr ReportField kOverFields[] = {F(OverStats, delay_avg), F(OverStats, delay_max),
                                       F(OverStats, delay_min), F(OverStats, count)};
constexpr ReportField kAllFields[] = {F(AllStats, delay_avg), F(AllStats, delay_amp),
                                      F(AllStats, recv_count), F(AllStats, send_count)};
#undef F
constexpr ReportShape kFine = {sizeof(FineStats), kFineFields};
constexpr ReportShape kOver = {sizeof(OverStats), kOverFields};
constexpr ReportShape kAll = {sizeof(AllStats), kAllFields};

#define F(form, field) FIELD(CommInfoRecord, form, field)
constexpr ReportField kCommunicationFields[] = {
    F(kUnsigned, used),
    F(kUnsigned, game_id),
    F(kUnsigned, socket_type),
    F(kUnsigned, total_sent_bytes),
    F(kUnsigned, total_sent_packets),
    F(kUnsigned, total_sent_errors),
    F(kUnsigned, first_send_error_code),
    F(kUnsigned, curr_send_error_code),
    F(kUnsigned, total_recv_bytes),
    F(kUnsigned, total_recv_packets),
    F(kUnsigned, total_recv_errors),
    F(kUnsigned, first_recv_error_code),
    F(kUnsigned, curr_recv_error_code),
    F(kUnsigned, create_tick),
    F(kUnsigned, life),
    F(kUnsigned, idle),
    F(kUnsigned, game_idc),
    F(kText, game_ip),
    F(kUnsigned, game_port),
    F(kUnsigned, proxy_idc),
    F(kText, proxy_ip),
    F(kUnsigned, proxy_port),
    F(kText, guid_str),
    F(kUnsigned, user_isp),
    F(kIp, user_ip),
    INNER(CommInfoRecord, frontend_fine, kFine),
    INNER(CommInfoRecord, backend_fine, kFine),
    INNER(CommInfoRecord, frontend_over, kOver),
    INNER(CommInfoRecord, backend_over, kOver),
    INNER(CommInfoRecord, frontend_all, kAll),
    INNER(CommInfoRecord, backend_all, kAll),
    F(kUnsigned, topology_type),
    F(kUnsigned, direct_delay),
    F(kUnsigned, direct_lost),
    F(kUnsigned, section1_delay),
    F(kUnsigned, section1_lost),
    F(kUnsigned, section2_delay),
    F(kUnsigned, ended),
    F(kText, recovery_info),
};
#undef F

constexpr ReportField kLogPathFields[] = {
    FIELD(LogPathRecord, kUnsigned, used),
    FIELD(LogPathRecord, kUnsigned, game_id),
    FIELD(LogPathRecord, kText, log_path),
};

constexpr ReportField kLoadedFields[] = {
    FIELD(LspLoadedRecord, kUnsigned, used),
    FIELD(LspLoadedRecord, kUnsigned, game_id),
    FIELD(LspLoadedRecord, kText, process_name),
    FIELD(LspLoadedRecord, kUnsigned, is_x64),
};

#define F(form, field) FIELD(NegRetRecord, form, field)
constexpr ReportField kNegotiationResultFields[] = {
    F(kUnsigned, used),
    F(kSigned, neg_type),
    F(kUnsigned, game_id),
    F(kSigned, nego_result),
    F(kUnsigned, last_error),
    F(kUnsigned, game_idc),
    F(kText, game_ip),
    F(kUnsigned, game_port),
    F(kUnsigned, proxy_idc),
    F(kText, proxy_ip),
    F(kUnsigned, proxy_port),
    F(kUnsigned, process_id),
    F(kFloat, reserved_value),
    F(kUnsigned, user_isp),
    F(kUnsigned, header3),
    F(kUnsigned, nego_count),
    F(kUnsigned, elapsed_ms),
    F(kIp, user_ip),
    F(kText, guid),
};
#undef F

#define F(form, field) FIELD(RealNegoRecord, form, field)
constexpr ReportField kRealNegotiationFields[] = {
    F(kUnsigned, used),   F(kUnsigned, game_id),    F(kUnsigned, user_isp),
    F(kIp, user_ip),      F(kText, guid),           F(kUnsigned, proxy_id),
    F(kText, proxy_ip),   F(kUnsigned, proxy_port), F(kUnsigned, last_node_id),
    F(kIp, last_node_ip), F(kIpOfHost, game_ip),    F(kUnsigned, game_port),
    F(kUnsigned, stamp),
};
#undef F

#define F(form, field) FIELD(RecoverySwitchRecord, form, field)
constexpr ReportField kRecoverySwitchFields[] = {
    F(kUnsigned, used),
    F(kUnsigned, game_id),
    F(kSigned, data_link_small_section_pack),
    F(kSigned, data_link_small_section_lost),
    F(kSigned, data_link_full_section_pack),
    F(kSigned, data_link_full_section_lost),
    F(kSigned, need_switch),
    F(kSigned, is_switch_succ),
    F(kSigned, count),
    F(kSigned, proxy_idc),
    F(kUnsigned, elapse_time),
    F(kSigned, total_recv_pack),
    F(kSigned, total_send_pack),
    F(kSigned, link_type),
    F(kText, guid),
    F(kText, switch_condition),
    F(kText, acc_info),
    F(kText, client_info),
    F(kText, fe_be),
};
#undef F

constexpr std::array<ChannelRow, kReportKindCount> kChannels = {{
    {"loaded", &kLoadedChannel, {sizeof(LspLoadedRecord), kLoadedFields}},
    {"log_path", &kLogPathChannel, {sizeof(LogPathRecord), kLogPathFields}},
    {"negotiation_result",
     &kNegotiationResultChannel,
     {sizeof(NegRetRecord), kNegotiationResultFields}},
    {"decision", &kDecisionChannel, {sizeof(AccDecisionInfo), kDecisionFields}},
    {"real_negotiation",
     &kRealNegotiationChannel,
     {sizeof(RealNegoRecord), kRealNegotiationFields}},
    {"recovery_switch",
     &kRecoverySwitchChannel,
     {sizeof(RecoverySwitchRecord), kRecoverySwitchFields}},
    {"communication", &kCommunicationChannel, {sizeof(CommInfoRecord), kCommunicationFields}},
}};

constexpr bool EveryRecordFillsItsSlot() {
  for (const ChannelRow& row : kChannels) {
    if (row.shape.size != row.channel->slot_size) return false;
  }
  return true;
}
static_assert(EveryRecordFillsItsSlot());

}  // namespace

const ChannelRow& ChannelOf(ReportKind kind) { return kChannels[kind]; }

}  // namespace client
