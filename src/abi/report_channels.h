// The channels through which the library reports to the client program.
//
// Each is a plain Shared_mem_obj: the region header, four reserved bytes, then an array of equal
// slots. A slot's first byte says that it is used; the library sets it, and the client program
// clears it once it has read the slot. Names and sizes are an agreement with the client program:
// some names end in share_mem and others in shared_mem, and each is used exactly as it stands.
#pragma once
#include "common/shared_mem_header.h"
#include "common/types.h"

namespace moru_vyr::lsp {

struct ReportChannel {
  const char* mapping_name;
  const char* mutex_name;
  u32 region_size;  // bytes, all included
  u32 slot_count;
  u32 slot_size;  // bytes
};

inline constexpr u32 kReportHeaderSize = sizeof(common::SharedMemHeader) + 4;

inline constexpr ReportChannel kDecisionChannel = {
    "vyr_qos_acce_decision_share_mem", "vyr_qos_acce_decision_named_mutex", 121840, 108, 1128};
inline constexpr ReportChannel kCommunicationChannel = {
    "vyr_comm_info_shared_mem", "vyr_comm_info_named_mutex", 31504, 32, 984};
inline constexpr ReportChannel kLogPathChannel = {"vyr_log_file_path_shared_mem",
                                                  "vyr_log_file_path_named_mutex", 4496, 16, 280};
inline constexpr ReportChannel kLoadedChannel = {
    "vyr_lsp_loaded_info_shared_mem", "vyr_lsp_loaded_info_named_mutex", 35856, 128, 280};
inline constexpr ReportChannel kNegotiationResultChannel = {
    "vyr_neg_ret_shared_mem", "vyr_neg_ret_named_mutex", 2960, 16, 184};
inline constexpr ReportChannel kRealNegotiationChannel = {
    "vyr_nego_real_ip_shared_mem", "vyr_nego_real_ip_named_mutex", 16432, 108, 152};
inline constexpr ReportChannel kRecoverySwitchChannel = {
    "vyr_recovery_switch_shared_mem", "vyr_recovery_switch_named_mutex", 9360, 16, 584};

static_assert(kReportHeaderSize == 16);

}  // namespace moru_vyr::lsp
