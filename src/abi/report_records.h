// What the library reports to the client program, one record a channel (report_channels.h). The
// record of the decision channel is AccDecisionInfo itself.
//
// Little-endian, packed. Texts are terminated. `used` comes first in each, because the first byte
// of a slot says whether the slot is taken. Fields that are not set are zero.
#pragma once
#include <cstddef>

#include "abi/acc_decision_info.h"
#include "abi/comm_info_record.h"
#include "abi/report_channels.h"
#include "common/shared_mem_header.h"
#include "common/types.h"

namespace moru_vyr::lsp {

#pragma pack(push, 1)
struct LogPathRecord {
  u8 used = 0;
  u8 reserved_1[7] = {};
  u64 game_id = 0;
  char log_path[260] = {};
  u8 reserved_276[4] = {};
};

struct LspLoadedRecord {
  u8 used = 0;
  u8 reserved_1[7] = {};
  u64 game_id = 0;
  char process_name[260] = {};
  u8 is_x64 = 0;
  u8 reserved_277[3] = {};
};

// One failed negotiation.
struct NegRetRecord {
  u8 used = 0;
  u8 reserved_1[3] = {};
  i32 neg_type = 0;  // 0 stream, 1 datagram
  u64 game_id = 0;
  i32 nego_result = 0;  // see NegoFailure
  u32 last_error = 0;
  u32 game_idc = 0;
  char game_ip[32] = {};
  u16 game_port = 0;  // host byte order
  u8 reserved_62[2] = {};
  u32 proxy_idc = 0;
  char proxy_ip[32] = {};
  u16 proxy_port = 0;  // host byte order
  u8 reserved_102[2] = {};
  u32 process_id = 0;
  u8 reserved_108[4] = {};
  double reserved_value = 0;  // always
  u32 user_isp = 0;
  u32 header3 = 0;
  u32 nego_count = 0;  // attempts so far
  u32 elapsed_ms = 0;
  u32 user_ip = 0;
  char guid[37] = {};
  u8 reserved_177[7] = {};
};

// One successful negotiation.
struct RealNegoRecord {
  u8 used = 0;
  u8 reserved_1[7] = {};
  u64 game_id = 0;
  u32 user_isp = 0;
  u32 user_ip = 0;  // network byte order
  char guid[65] = {};
  u8 reserved_89[3] = {};
  u32 proxy_id = 0;
  char proxy_ip[32] = {};
  u32 proxy_port = 0;  // host byte order
  u32 last_node_id = 0;
  u32 last_node_ip = 0;  // network byte order
  u32 game_ip = 0;       // host byte order
  u32 game_port = 0;     // host byte order
  u32 stamp = 0;         // seconds since 1970
};

// A link in trouble: what was measured, and whether the flow moved.
struct RecoverySwitchRecord {
  u8 used = 0;
  u8 reserved_1[7] = {};
  u64 game_id = 0;
  i32 data_link_small_section_pack = 0;
  i32 data_link_small_section_lost = 0;
  i32 data_link_full_section_pack = 0;
  i32 data_link_full_section_lost = 0;
  i32 need_switch = 0;
  i32 is_switch_succ = 0;
  i32 count = 0;
  i32 proxy_idc = 0;
  u32 elapse_time = 0;  // milliseconds
  i32 total_recv_pack = 0;
  i32 total_send_pack = 0;
  i32 link_type = 0;
  char guid[37] = {};
  char switch_condition[120] = {};
  char acc_info[120] = {};
  char client_info[120] = {};
  char fe_be[120] = {};
  u8 reserved_581[3] = {};
};
#pragma pack(pop)

static_assert(sizeof(LogPathRecord) == 280);
static_assert(offsetof(LogPathRecord, used) == 0);
static_assert(offsetof(LogPathRecord, reserved_1) == 1);
static_assert(offsetof(LogPathRecord, game_id) == 8);
static_assert(offsetof(LogPathRecord, log_path) == 16);
static_assert(offsetof(LogPathRecord, reserved_276) == 276);

static_assert(sizeof(LspLoadedRecord) == 280);
static_assert(offsetof(LspLoadedRecord, used) == 0);
static_assert(offsetof(LspLoadedRecord, reserved_1) == 1);
static_assert(offsetof(LspLoadedRecord, game_id) == 8);
static_assert(offsetof(LspLoadedRecord, process_name) == 16);
static_assert(offsetof(LspLoadedRecord, is_x64) == 276);
static_assert(offsetof(LspLoadedRecord, reserved_277) == 277);

static_assert(sizeof(NegRetRecord) == 184);
static_assert(offsetof(NegRetRecord, used) == 0);
static_assert(offsetof(NegRetRecord, reserved_1) == 1);
static_assert(offsetof(NegRetRecord, neg_type) == 4);
static_assert(offsetof(NegRetRecord, game_id) == 8);
static_assert(offsetof(NegRetRecord, nego_result) == 16);
static_assert(offsetof(NegRetRecord, last_error) == 20);
static_assert(offsetof(NegRetRecord, game_idc) == 24);
static_assert(offsetof(NegRetRecord, game_ip) == 28);
static_assert(offsetof(NegRetRecord, game_port) == 60);
static_assert(offsetof(NegRetRecord, reserved_62) == 62);
static_assert(offsetof(NegRetRecord, proxy_idc) == 64);
static_assert(offsetof(NegRetRecord, proxy_ip) == 68);
static_assert(offsetof(NegRetRecord, proxy_port) == 100);
static_assert(offsetof(NegRetRecord, reserved_102) == 102);
static_assert(offsetof(NegRetRecord, process_id) == 104);
static_assert(offsetof(NegRetRecord, reserved_108) == 108);
static_assert(offsetof(NegRetRecord, reserved_value) == 112);
static_assert(offsetof(NegRetRecord, user_isp) == 120);
static_assert(offsetof(NegRetRecord, header3) == 124);
static_assert(offsetof(NegRetRecord, nego_count) == 128);
static_assert(offsetof(NegRetRecord, elapsed_ms) == 132);
static_assert(offsetof(NegRetRecord, user_ip) == 136);
static_assert(offsetof(NegRetRecord, guid) == 140);
static_assert(offsetof(NegRetRecord, reserved_177) == 177);

static_assert(sizeof(RealNegoRecord) == 152);
static_assert(offsetof(RealNegoRecord, used) == 0);
static_assert(offsetof(RealNegoRecord, reserved_1) == 1);
static_assert(offsetof(RealNegoRecord, game_id) == 8);
static_assert(offsetof(RealNegoRecord, user_isp) == 16);
static_assert(offsetof(RealNegoRecord, user_ip) == 20);
static_assert(offsetof(RealNegoRecord, guid) == 24);
static_assert(offsetof(RealNegoRecord, reserved_89) == 89);
static_assert(offsetof(RealNegoRecord, proxy_id) == 92);
static_assert(offsetof(RealNegoRecord, proxy_ip) == 96);
static_assert(offsetof(RealNegoRecord, proxy_port) == 128);
static_assert(offsetof(RealNegoRecord, last_node_id) == 132);
static_assert(offsetof(RealNegoRecord, last_node_ip) == 136);
static_assert(offsetof(RealNegoRecord, game_ip) == 140);
static_assert(offsetof(RealNegoRecord, game_port) == 144);
static_assert(offsetof(RealNegoRecord, stamp) == 148);

static_assert(sizeof(RecoverySwitchRecord) == 584);
static_assert(offsetof(RecoverySwitchRecord, used) == 0);
static_assert(offsetof(RecoverySwitchRecord, reserved_1) == 1);
static_assert(offsetof(RecoverySwitchRecord, game_id) == 8);
static_assert(offsetof(RecoverySwitchRecord, data_link_small_section_pack) == 16);
static_assert(offsetof(RecoverySwitchRecord, data_link_small_section_lost) == 20);
static_assert(offsetof(RecoverySwitchRecord, data_link_full_section_pack) == 24);
static_assert(offsetof(RecoverySwitchRecord, data_link_full_section_lost) == 28);
static_assert(offsetof(RecoverySwitchRecord, need_switch) == 32);
static_assert(offsetof(RecoverySwitchRecord, is_switch_succ) == 36);
static_assert(offsetof(RecoverySwitchRecord, count) == 40);
static_assert(offsetof(RecoverySwitchRecord, proxy_idc) == 44);
static_assert(offsetof(RecoverySwitchRecord, elapse_time) == 48);
static_assert(offsetof(RecoverySwitchRecord, total_recv_pack) == 52);
static_assert(offsetof(RecoverySwitchRecord, total_send_pack) == 56);
static_assert(offsetof(RecoverySwitchRecord, link_type) == 60);
static_assert(offsetof(RecoverySwitchRecord, guid) == 64);
static_assert(offsetof(RecoverySwitchRecord, switch_condition) == 101);
static_assert(offsetof(RecoverySwitchRecord, acc_info) == 221);
static_assert(offsetof(RecoverySwitchRecord, client_info) == 341);
static_assert(offsetof(RecoverySwitchRecord, fe_be) == 461);
static_assert(offsetof(RecoverySwitchRecord, reserved_581) == 581);

// A channel's region as a whole. The records are packed, so there is no padding.
template <typename Record, u32 kSlots>
struct ReportRegion {
  common::SharedMemHeader header;
  u8 reserved_12[4] = {};
  Record slots[kSlots];
};

using DecisionRegion = ReportRegion<AccDecisionInfo, 108>;
using CommunicationRegion = ReportRegion<CommInfoRecord, 32>;
using LogPathRegion = ReportRegion<LogPathRecord, 16>;
using LoadedRegion = ReportRegion<LspLoadedRecord, 128>;
using NegotiationResultRegion = ReportRegion<NegRetRecord, 16>;
using RealNegotiationRegion = ReportRegion<RealNegoRecord, 108>;
using RecoverySwitchRegion = ReportRegion<RecoverySwitchRecord, 16>;

template <typename Region>
constexpr bool Fills(const ReportChannel& channel) noexcept {
  return sizeof(Region) == channel.region_size &&
         sizeof(Region::slots) == std::size_t{channel.slot_count} * channel.slot_size;
}
static_assert(Fills<DecisionRegion>(kDecisionChannel));
static_assert(Fills<CommunicationRegion>(kCommunicationChannel));
static_assert(Fills<LogPathRegion>(kLogPathChannel));
static_assert(Fills<LoadedRegion>(kLoadedChannel));
static_assert(Fills<NegotiationResultRegion>(kNegotiationResultChannel));
static_assert(Fills<RealNegotiationRegion>(kRealNegotiationChannel));
static_assert(Fills<RecoverySwitchRegion>(kRecoverySwitchChannel));

}  // namespace moru_vyr::lsp
