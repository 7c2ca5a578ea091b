/* The shared regions of vyr for client programs in C and C++, C99 and later.
 *
 * Made by scripts/make_regions_header.py from the records in src/. Do not edit.
 * docs/regions.md says who makes each region, who may write to it, and when. docs/tables.md and
 * docs/reports.md say what the fields mean.
 *
 * Everything is little-endian and packed: fields may lie on any address, so copy a record before
 * you take the address of one of its fields. Sizes and offsets are checked at the end of this file.
 */
#ifndef VYR_REGIONS_H
#define VYR_REGIONS_H

/* clang-format off */
#include <stddef.h>
#include <stdint.h>

#define VYR_SHARED_MEM_MAJOR_VERSION 1u
#define VYR_SHARED_MEM_MINOR_VERSION 36u

#pragma pack(push, 1)
typedef struct vyr_shared_mem_header {
  uint32_t shared_mem_size;  /* of the whole record, this header included */
  uint32_t major_ver;
  uint32_t minor_ver;
} vyr_shared_mem_header;  /* 12 bytes */

typedef struct vyr_route_proxy_info {
  uint32_t type;
  uint32_t flag;
  char proxy_addr[32];  /* dotted IPv4 text */
  uint16_t proxy_port;  /* host byte order */
  uint8_t reserved_42[2];
  uint32_t proxy_idc;  /* identity of the proxy */
  uint32_t proxy_isp;
  char proxy_name[64];
  uint32_t section1_delay;  /* from the user to the proxy, milliseconds */
  uint32_t section1_lost;  /* percent */
  uint32_t to_proxy_speed_isp;
  uint32_t to_proxy_speed_ip;
  uint32_t user_isp;  /* filled in by the node's answer, as user_ip is */
  uint32_t user_ip;
  uint32_t surport_isps;  /* bit mask of the providers that the proxy serves */
  uint32_t version;
  uint32_t decision;
  uint32_t section2_delay;  /* from the proxy to the game server, milliseconds */
  uint32_t section2_lost;  /* percent */
  uint32_t last_node;  /* identity of the last node on this path */
} vyr_route_proxy_info;  /* 164 bytes */

typedef struct vyr_switch_proxy_info {
  vyr_route_proxy_info proxies[2];
  uint32_t game_idc;
  uint32_t last_node;
} vyr_switch_proxy_info;  /* 336 bytes */

#pragma pack(pop)

#define VYR_LAUNCH_TEST_REGION_NAME "vyr_game_launch_test_shared_mem"
#define VYR_LAUNCH_TEST_MUTEX_NAME "vyr_game_launch_test_named_mutex"
#define VYR_MAX_GLT_RECORDS 64u

#pragma pack(push, 1)
typedef struct vyr_glt_route_info {
  uint32_t game_idc;
  uint8_t glt_head[68];  /* copied into reports, otherwise unused */
  vyr_route_proxy_info proxy;
} vyr_glt_route_info;  /* 236 bytes */

typedef struct vyr_launch_test_region {
  vyr_shared_mem_header header;
  uint32_t valid_count;
  vyr_glt_route_info records[VYR_MAX_GLT_RECORDS];
} vyr_launch_test_region;  /* 15120 bytes */

#pragma pack(pop)

#define VYR_MAX_GAME_PATHS 10u
#define VYR_MAX_EXCLUDED_PORTS 32u
#define VYR_MAX_MANUAL_ROUTES 20u
#define VYR_MAX_REACH_RECORDS 64u
#define VYR_MAX_PORT_IDC_RECORDS 256u
#define VYR_NET_MODE_TCP 0x8u
#define VYR_NET_MODE_UDP 0x10u
#define VYR_NET_MODE_ASY_TCP 0x20u  /* implies VYR_NET_MODE_TCP */
#define VYR_NET_MODE_BOTH_MODES 0x30000u  /* both bits together */
#define VYR_NET_MODE_REFUSE_WITHOUT_ACC_MODE 0x2000000u

#pragma pack(push, 1)
/* The number of the game's data centre behind a port. idc 0: no record; port 0: every port. */
typedef struct vyr_port_idc_record {
  uint32_t port;  /* host byte order */
  uint32_t idc;
} vyr_port_idc_record;  /* 8 bytes */

typedef vyr_switch_proxy_info vyr_manual_route_record;

/* The data centres that the forced proxy reaches. A delay of 9999 milliseconds or more means
 * unreachable. */
typedef struct vyr_reach_record {
  uint32_t game_idc;
  uint32_t delay;
  uint8_t reserved_8[8];
} vyr_reach_record;  /* 16 bytes */

typedef struct vyr_reachability_table {
  uint32_t proxy_idc;
  uint32_t reach_count;
  vyr_reach_record records[VYR_MAX_REACH_RECORDS];
} vyr_reachability_table;  /* 1032 bytes */

typedef struct vyr_acc_config_record {
  uint32_t valid;  /* not 0: a used slot, a loaded configuration */
  uint8_t reserved_4[4];
  uint64_t game_id;
  uint32_t net_mode;
  uint32_t path_count;
  char game_paths[VYR_MAX_GAME_PATHS][260];  /* full paths of the game's programs */
  uint32_t excluded_port_count;
  uint32_t excluded_ports[VYR_MAX_EXCLUDED_PORTS];  /* TCP, host byte order, never accelerated */
  char uin[64];  /* the user's number in decimal */
  char second_text[64];
  uint32_t log_level;  /* lowest level that is written */
  char log_path[260];  /* the log files are in its parent directory */
  uint8_t reserved_3148[4];
  uint64_t zone_id;
  uint32_t zone_word;
  uint32_t acc_mode;  /* 0: no acceleration; 2: second route set, manual routes allowed */
  uint32_t manual_mode;  /* not 0: forced proxy and manual routes, where acc_mode is 2 */
  vyr_route_proxy_info forced_proxy;
  vyr_manual_route_record manual_routes[VYR_MAX_MANUAL_ROUTES];
  vyr_reachability_table reachability;
  uint16_t reserved_words[4];
  uint32_t reserved_word;
  uint8_t game_launch_test_use;
  uint8_t reserved_11101[3];
  uint32_t glt_word;
  uint8_t wait_route;  /* wait for the route tables at start-up */
  uint8_t reserved_11109[3];
  /* Thresholds of measuring and of node switching. Their readers apply the minimum values. */
  uint32_t lost_calc_unit_size;  /* low 16 bits count */
  uint8_t short_cycle;
  uint8_t data_link_short_cycle_lost;
  uint8_t data_link_long_cycle_lost;
  uint8_t long_cycle;
  uint16_t recovery_window_word;
  uint16_t data_link_short_cycle_pkg;
  uint16_t data_link_long_cycle_pkg;
  uint8_t reserved_11126[2];
  uint32_t norm_test_interval;  /* milliseconds */
  uint32_t high_freq_test_interval;  /* milliseconds */
  uint32_t high_freq_test_time;  /* milliseconds */
  uint16_t max_delay_avg;  /* milliseconds */
  uint16_t max_delay_amp;  /* milliseconds */
  uint8_t max_real_route_lost;  /* percent */
  uint8_t link_switch_mask;  /* bit n: links of type n are measured */
  uint8_t switch_open;
  uint8_t reserved_11147;
  uint16_t max_link_except_rep_num;
  uint16_t ignore_high_freq_test_time;  /* seconds */
  uint16_t max_high_freq_test_count;
  uint16_t watching_time_span;  /* seconds */
  char list_text[129];  /* game ids in decimal, comma-separated */
  uint8_t game_link_switch_open;
  uint16_t link_switch_min_inter;  /* seconds */
  uint16_t max_link_switch_count;
  uint8_t reserved_11290[2];
  uint32_t switching_high_freq_test_interval;  /* milliseconds */
  uint32_t switching_high_freq_test_time;  /* milliseconds */
  uint16_t switching_max_delay_avg;  /* milliseconds */
  uint16_t switching_max_delay_amp;  /* milliseconds */
  uint8_t switching_max_real_route_lost;  /* percent */
  uint8_t reserved_11305;
  uint16_t max_valid_test_delay;  /* milliseconds */
  uint16_t port_idc_count;
  uint8_t reserved_11310[2];
  vyr_port_idc_record port_idc_records[VYR_MAX_PORT_IDC_RECORDS];
  uint32_t game_vip_level;  /* digit that selects records of the IP table */
  uint8_t reserved_13364[4];
} vyr_acc_config_record;  /* 13368 bytes */

#pragma pack(pop)

#define VYR_RESTRICTION_REGION_NAME "vyr_restriction_share_mem"
#define VYR_RESTRICTION_MUTEX_NAME "vyr_restriction_named_mutex"
#define VYR_MAX_GAMES 10u

#pragma pack(push, 1)
typedef struct vyr_restriction_region {
  vyr_shared_mem_header header;
  uint8_t reserved_12[4];
  vyr_acc_config_record games[VYR_MAX_GAMES];
  char route_binary_file_path[260];
  char second_path[260];
} vyr_restriction_region;  /* 134216 bytes */

#pragma pack(pop)

#define VYR_MENDING_REGION_NAME "vyr_mending_share_mem"
#define VYR_MENDING_MUTEX_NAME "vyr_mending_named_mutex"
#define VYR_MEND_HALF_CLOSE 0x1u  /* one side may end its sending and go on reading */
#define VYR_MEND_FAILED_NODE 0x2u  /* a node that cannot be reached is tried and left */
#define VYR_MEND_RESET 0x4u  /* a reset stays a reset */
#define VYR_MEND_CONNECT_EX 0x8u  /* ConnectEx answers what the next provider answered */
#define VYR_MEND_RESTART 0x10u  /* a process that starts Winsock anew is served anew */
#define VYR_MEND_FALLBACK 0x20u  /* another way is tried soon, failed nodes rest */
#define VYR_MEND_CONNECTED_DATAGRAM 0x40u  /* datagram sockets may be connected */
#define VYR_MEND_OVERLAPPED_DATAGRAM 0x80u  /* late receives get their source */
#define VYR_MEND_AFTER_SWITCH 0x100u  /* a flow that has moved starts anew */
#define VYR_MEND_JUDGEMENT 0x200u  /* a link is judged by what it does */
#define VYR_MEND_START 0x400u  /* starting, ending and fullness as without us */
#define VYR_MEND_NAMES 0x800u  /* names of both ends of a stream as without us */
#define VYR_MEND_DATAGRAM_MATCH 0x1000u  /* no datagram gets another one's address */
#define VYR_MEND_REFUSAL 0x2000u  /* a server that refuses is a refused connect */
#define VYR_MEND_THROUGHPUT 0x4000u  /* relayed data moves in larger steps */
#define VYR_MEND_ALL 0x3fffu

#pragma pack(push, 1)
typedef struct vyr_mending_record {
  uint32_t mended;
  /* Of VYR_MEND_FALLBACK, in milliseconds; 0: the default. */
  uint32_t next_node_ms;  /* for the first node's answer, before another way is tried */
  uint32_t direct_ms;  /* for the second node's, before the game server itself is tried */
  uint32_t node_rest_ms;  /* in which a node that has failed is not asked again */
  uint8_t reserved_16[16];  /* zero */
} vyr_mending_record;  /* 32 bytes */

typedef struct vyr_mending_region {
  vyr_shared_mem_header header;
  uint8_t reserved_12[4];
  vyr_mending_record games[VYR_MAX_GAMES];  /* each for the game in the same place of vyr_restriction_region */
} vyr_mending_region;  /* 336 bytes */

#pragma pack(pop)

#define VYR_IP_TABLE_REGION_NAME "vyr_iptable_share_mem"
#define VYR_IP_TABLE_MUTEX_NAME "vyr_iptable_named_mutex"
#define VYR_MAX_IP_RECORDS 81920u
#define VYR_SPUR_REGION_NAME "vyr_spur_iptable_share_mem"
#define VYR_SPUR_MUTEX_NAME "vyr_spur_iptable_named_mutex"
#define VYR_MAX_SPUR_RECORDS 2048u

#pragma pack(push, 1)
/* The hundreds digit of game_idc is the VIP level that the record is for. */
typedef struct vyr_ip_record {
  uint32_t game_idc;
  uint32_t ip;  /* network byte order */
} vyr_ip_record;  /* 8 bytes */

typedef struct vyr_ip_table_region {
  vyr_shared_mem_header header;
  uint32_t ip_count;
  vyr_ip_record records[VYR_MAX_IP_RECORDS];
  uint32_t iptable_word;
} vyr_ip_table_region;  /* 655380 bytes */

/* For every level alike. */
typedef struct vyr_spur_ip_record {
  uint32_t game_idc;
  uint32_t ip;  /* network byte order */
} vyr_spur_ip_record;  /* 8 bytes */

typedef struct vyr_spur_region {
  vyr_shared_mem_header header;
  uint32_t spur_count;
  vyr_spur_ip_record records[VYR_MAX_SPUR_RECORDS];
} vyr_spur_region;  /* 16400 bytes */

#pragma pack(pop)

#define VYR_BLACKLIST_REGION_NAME "vyr_acc_blacklist_share_mem"
#define VYR_BLACKLIST_MUTEX_NAME "vyr_acc_blacklist_named_mutex"
#define VYR_MAX_BLACKLIST_RECORDS 1024u
#define VYR_BLACKLIST_TCP 1u
#define VYR_BLACKLIST_UDP 2u

#pragma pack(push, 1)
/* A zero in any of the first three fields matches everything; type has no such value. */
typedef struct vyr_blacklist_record {
  uint64_t game_id;
  uint32_t ip;  /* network byte order */
  uint32_t port;  /* host byte order */
  uint32_t type;
  uint8_t reserved_20[4];
} vyr_blacklist_record;  /* 24 bytes */

typedef struct vyr_blacklist_region {
  vyr_shared_mem_header header;
  uint8_t reserved_12[4];
  uint32_t blacklist_count;
  uint8_t reserved_20[4];
  vyr_blacklist_record records[VYR_MAX_BLACKLIST_RECORDS];
} vyr_blacklist_region;  /* 24600 bytes */

#pragma pack(pop)

#define VYR_ROUTE_REGION_NAME "vyr_route_share_mem"
#define VYR_ROUTE_MUTEX_NAME "vyr_route_named_mutex"
#define VYR_MAX_ROUTES 60u
#define VYR_MAX_PROXIES 150u
#define VYR_TOP_REFS 3u
#define VYR_SWITCH_GROUPS 4u
#define VYR_SWITCH_CANDIDATES 2u
#define VYR_ROUTE_HEADER_WORDS 4u

#pragma pack(push, 1)
/* One proxy as a way to one data centre. proxy_idc 0: no proxy. */
typedef struct vyr_proxy_ref {
  uint32_t proxy_idc;
  uint32_t section2_delay;  /* from the proxy to the game server, milliseconds */
  uint32_t section2_lost;  /* percent */
  uint32_t decision;  /* one of the VYR_DECISION_ values */
  uint32_t last_node;  /* identity of the last node on this path */
} vyr_proxy_ref;  /* 20 bytes */

/* Where a flow may move if its path ends in last_node. last_node 0: no group. */
typedef struct vyr_switch_group {
  uint32_t last_node;
  vyr_proxy_ref candidates[VYR_SWITCH_CANDIDATES];
} vyr_switch_group;  /* 44 bytes */

/* The route to one data centre of a game, found by its game_idc. */
typedef struct vyr_route_entry {
  uint32_t entry_word0;
  uint32_t entry_word1;
  uint32_t game_idc;
  uint32_t entry_word3;
  uint32_t entry_word4;
  char entry_name[64];
  uint32_t entry_word21;
  uint32_t direct_delay;  /* milliseconds */
  uint32_t direct_lost;  /* percent */
  vyr_proxy_ref top_refs[VYR_TOP_REFS];
  vyr_proxy_ref ref_both_modes;  /* where net_mode has both of its mode bits */
  vyr_proxy_ref ref_default;
  vyr_switch_group switch_groups[VYR_SWITCH_GROUPS];
} vyr_route_entry;  /* 372 bytes */

typedef struct vyr_route_set {
  uint32_t route_count;
  vyr_route_entry routes[VYR_MAX_ROUTES];
} vyr_route_set;  /* 22324 bytes */

typedef struct vyr_proxy_record {
  uint32_t type;
  uint32_t flag;
  char proxy_addr[32];  /* dotted IPv4 text */
  uint16_t proxy_port;  /* host byte order */
  uint8_t reserved_42[2];
  uint32_t proxy_idc;  /* identity of the proxy */
  uint32_t proxy_isp;
  char proxy_name[64];
  uint32_t section1_delay;  /* from the user to the proxy, milliseconds */
  uint32_t section1_lost;  /* percent */
  uint32_t to_proxy_speed_isp;
  uint32_t to_proxy_speed_ip;
  uint32_t surport_isps;  /* bit mask of the providers that the proxy serves */
  uint32_t version;
} vyr_proxy_record;  /* 140 bytes */

/* What the binary file holds, byte by byte and nothing else. */
typedef struct vyr_route_table_image {
  vyr_route_set route_sets[2];  /* the second where acc_mode is 2 */
  uint32_t header0;
  uint32_t header1;
  uint32_t header2;
  uint32_t header3;
  uint32_t proxy_count;
  vyr_proxy_record proxies[VYR_MAX_PROXIES];
} vyr_route_table_image;  /* 65668 bytes */

/* One of the region's two buffers. */
typedef struct vyr_route_region {
  vyr_shared_mem_header header;
  vyr_route_table_image image;
} vyr_route_region;  /* 65680 bytes */

typedef struct vyr_acc_decision_info {
  uint8_t used;  /* 1 once filled */
  char guid[65];  /* the socket's identifying text */
  uint8_t reserved_66[2];
  int32_t acc_reason;  /* one of the VYR_REASON_ values */
  uint64_t game_id;
  uint64_t zone_id;
  uint32_t net_mode;
  uint32_t process_id;
  uint64_t socket;  /* widened with zero */
  int32_t socket_type;  /* 0 stream, 1 datagram, -1 other */
  uint32_t game_ip;  /* host byte order */
  uint32_t game_port;  /* host byte order */
  uint32_t game_idc;
  uint32_t entry_word3;
  uint32_t entry_word4;
  char entry_name[64];
  uint32_t entry_word21;
  uint32_t direct_delay;  /* milliseconds */
  uint32_t direct_lost;  /* percent */
  uint32_t header0;
  uint32_t header1;
  uint32_t header2;
  uint32_t entry_word0;
  uint32_t entry_word1;
  uint32_t header3;
  vyr_route_proxy_info top_proxy[VYR_TOP_REFS];
  vyr_route_proxy_info selected_proxy;  /* the one that the session uses */
  uint8_t game_launch_test_use;
  uint8_t reserved_885[3];
  vyr_glt_route_info glt_route_info;  /* zero where none matched */
  uint32_t glt_word;
} vyr_acc_decision_info;  /* 1128 bytes */

/* Delays in milliseconds. Fine figures are of answers below the configured limit for delays,
 * over figures of those at or above it. */
typedef struct vyr_fine_stats {
  uint32_t delay_avg;
  uint32_t delay_max;
  uint32_t delay_min;
  uint32_t delay_amp;
  uint32_t total_recv;
  uint32_t total_send;
} vyr_fine_stats;  /* 24 bytes */

typedef struct vyr_over_stats {
  uint32_t delay_avg;
  uint32_t delay_max;
  uint32_t delay_min;
  uint32_t count;
} vyr_over_stats;  /* 16 bytes */

typedef struct vyr_all_stats {
  uint32_t delay_avg;
  uint32_t delay_amp;
  uint32_t recv_count;
  uint32_t send_count;
} vyr_all_stats;  /* 16 bytes */

/* The traffic of one accelerated socket. */
typedef struct vyr_comm_info_record {
  uint8_t used;
  uint8_t reserved_1[7];
  uint64_t game_id;
  uint32_t socket_type;  /* 1 stream, 2 datagram, 0 other: not as in vyr_acc_decision_info */
  uint32_t total_sent_bytes;
  uint32_t total_sent_packets;
  uint32_t total_sent_errors;
  uint32_t first_send_error_code;
  uint32_t curr_send_error_code;
  uint32_t total_recv_bytes;
  uint32_t total_recv_packets;
  uint32_t total_recv_errors;
  uint32_t first_recv_error_code;
  uint32_t curr_recv_error_code;
  uint32_t create_tick;  /* GetTickCount when the socket was created */
  uint32_t life;  /* milliseconds since then */
  uint32_t idle;  /* milliseconds since the last receive */
  uint32_t game_idc;
  char game_ip[260];
  uint32_t game_port;  /* host byte order */
  uint32_t proxy_idc;
  char proxy_ip[260];
  uint16_t proxy_port;  /* host byte order */
  char guid_str[65];
  uint8_t reserved_671[45];
  uint32_t user_isp;
  uint32_t user_ip;  /* network byte order */
  vyr_fine_stats frontend_fine;
  vyr_fine_stats backend_fine;
  vyr_over_stats frontend_over;
  vyr_over_stats backend_over;
  vyr_all_stats frontend_all;
  vyr_all_stats backend_all;
  uint32_t topology_type;
  uint32_t direct_delay;
  uint32_t direct_lost;
  uint32_t section1_delay;
  uint32_t section1_lost;
  uint32_t section2_delay;
  uint8_t ended;  /* 1: the socket's last report */
  char recovery_info[120];
  uint8_t reserved_981[3];
} vyr_comm_info_record;  /* 984 bytes */

#pragma pack(pop)

#define VYR_DECISION_REGION_NAME "vyr_qos_acce_decision_share_mem"
#define VYR_DECISION_MUTEX_NAME "vyr_qos_acce_decision_named_mutex"
#define VYR_DECISION_SLOT_COUNT 108u
#define VYR_COMMUNICATION_REGION_NAME "vyr_comm_info_shared_mem"
#define VYR_COMMUNICATION_MUTEX_NAME "vyr_comm_info_named_mutex"
#define VYR_COMMUNICATION_SLOT_COUNT 32u
#define VYR_LOG_PATH_REGION_NAME "vyr_log_file_path_shared_mem"
#define VYR_LOG_PATH_MUTEX_NAME "vyr_log_file_path_named_mutex"
#define VYR_LOG_PATH_SLOT_COUNT 16u
#define VYR_LOADED_REGION_NAME "vyr_lsp_loaded_info_shared_mem"
#define VYR_LOADED_MUTEX_NAME "vyr_lsp_loaded_info_named_mutex"
#define VYR_LOADED_SLOT_COUNT 128u
#define VYR_NEGOTIATION_RESULT_REGION_NAME "vyr_neg_ret_shared_mem"
#define VYR_NEGOTIATION_RESULT_MUTEX_NAME "vyr_neg_ret_named_mutex"
#define VYR_NEGOTIATION_RESULT_SLOT_COUNT 16u
#define VYR_REAL_NEGOTIATION_REGION_NAME "vyr_nego_real_ip_shared_mem"
#define VYR_REAL_NEGOTIATION_MUTEX_NAME "vyr_nego_real_ip_named_mutex"
#define VYR_REAL_NEGOTIATION_SLOT_COUNT 108u
#define VYR_RECOVERY_SWITCH_REGION_NAME "vyr_recovery_switch_shared_mem"
#define VYR_RECOVERY_SWITCH_MUTEX_NAME "vyr_recovery_switch_named_mutex"
#define VYR_RECOVERY_SWITCH_SLOT_COUNT 16u

#pragma pack(push, 1)
typedef struct vyr_log_path_record {
  uint8_t used;
  uint8_t reserved_1[7];
  uint64_t game_id;
  char log_path[260];
  uint8_t reserved_276[4];
} vyr_log_path_record;  /* 280 bytes */

typedef struct vyr_lsp_loaded_record {
  uint8_t used;
  uint8_t reserved_1[7];
  uint64_t game_id;
  char process_name[260];
  uint8_t is_x64;
  uint8_t reserved_277[3];
} vyr_lsp_loaded_record;  /* 280 bytes */

/* One failed negotiation. */
typedef struct vyr_neg_ret_record {
  uint8_t used;
  uint8_t reserved_1[3];
  int32_t neg_type;  /* 0 stream, 1 datagram */
  uint64_t game_id;
  int32_t nego_result;  /* see docs/reports.md */
  uint32_t last_error;
  uint32_t game_idc;
  char game_ip[32];
  uint16_t game_port;  /* host byte order */
  uint8_t reserved_62[2];
  uint32_t proxy_idc;
  char proxy_ip[32];
  uint16_t proxy_port;  /* host byte order */
  uint8_t reserved_102[2];
  uint32_t process_id;
  uint8_t reserved_108[4];
  double reserved_value;  /* always */
  uint32_t user_isp;
  uint32_t header3;
  uint32_t nego_count;  /* attempts so far */
  uint32_t elapsed_ms;
  uint32_t user_ip;
  char guid[37];
  uint8_t reserved_177[7];
} vyr_neg_ret_record;  /* 184 bytes */

/* One successful negotiation. */
typedef struct vyr_real_nego_record {
  uint8_t used;
  uint8_t reserved_1[7];
  uint64_t game_id;
  uint32_t user_isp;
  uint32_t user_ip;  /* network byte order */
  char guid[65];
  uint8_t reserved_89[3];
  uint32_t proxy_id;
  char proxy_ip[32];
  uint32_t proxy_port;  /* host byte order */
  uint32_t last_node_id;
  uint32_t last_node_ip;  /* network byte order */
  uint32_t game_ip;  /* host byte order */
  uint32_t game_port;  /* host byte order */
  uint32_t stamp;  /* seconds since 1970 */
} vyr_real_nego_record;  /* 152 bytes */

/* A link in trouble: what was measured, and whether the flow moved. */
typedef struct vyr_recovery_switch_record {
  uint8_t used;
  uint8_t reserved_1[7];
  uint64_t game_id;
  int32_t data_link_small_section_pack;
  int32_t data_link_small_section_lost;
  int32_t data_link_full_section_pack;
  int32_t data_link_full_section_lost;
  int32_t need_switch;
  int32_t is_switch_succ;
  int32_t count;
  int32_t proxy_idc;
  uint32_t elapse_time;  /* milliseconds */
  int32_t total_recv_pack;
  int32_t total_send_pack;
  int32_t link_type;
  char guid[37];
  char switch_condition[120];
  char acc_info[120];
  char client_info[120];
  char fe_be[120];
  uint8_t reserved_581[3];
} vyr_recovery_switch_record;  /* 584 bytes */

typedef struct vyr_decision_region {
  vyr_shared_mem_header header;
  uint8_t reserved_12[4];
  vyr_acc_decision_info slots[108];
} vyr_decision_region;  /* 121840 bytes */

typedef struct vyr_communication_region {
  vyr_shared_mem_header header;
  uint8_t reserved_12[4];
  vyr_comm_info_record slots[32];
} vyr_communication_region;  /* 31504 bytes */

typedef struct vyr_log_path_region {
  vyr_shared_mem_header header;
  uint8_t reserved_12[4];
  vyr_log_path_record slots[16];
} vyr_log_path_region;  /* 4496 bytes */

typedef struct vyr_loaded_region {
  vyr_shared_mem_header header;
  uint8_t reserved_12[4];
  vyr_lsp_loaded_record slots[128];
} vyr_loaded_region;  /* 35856 bytes */

typedef struct vyr_negotiation_result_region {
  vyr_shared_mem_header header;
  uint8_t reserved_12[4];
  vyr_neg_ret_record slots[16];
} vyr_negotiation_result_region;  /* 2960 bytes */

typedef struct vyr_real_negotiation_region {
  vyr_shared_mem_header header;
  uint8_t reserved_12[4];
  vyr_real_nego_record slots[108];
} vyr_real_negotiation_region;  /* 16432 bytes */

typedef struct vyr_recovery_switch_region {
  vyr_shared_mem_header header;
  uint8_t reserved_12[4];
  vyr_recovery_switch_record slots[16];
} vyr_recovery_switch_region;  /* 9360 bytes */

#pragma pack(pop)

#define VYR_DECISION_ACCE 0
#define VYR_DECISION_DIRECT 1
#define VYR_DECISION_NOT_ACCE_SAME_ISP 2
#define VYR_DECISION_NOT_ACCE 3
#define VYR_DECISION_FORCE_ACCE_AUTO 4
#define VYR_DECISION_OVER_MAX_BOTH 5
#define VYR_DECISION_OVER_MAX_DELAY 6
#define VYR_DECISION_OVER_MAX_LOST 7
#define VYR_DECISION_FORCE_ACCE_MANUAL 8

#define VYR_REASON_UNKNOWN (-1)
#define VYR_REASON_ACCE 0
#define VYR_REASON_DIRECT 1
#define VYR_REASON_SAME_ISP 7
#define VYR_REASON_NOT_ACCE 10
#define VYR_REASON_FORCE_AUTO 11
#define VYR_REASON_OVER_MAX_BOTH 12
#define VYR_REASON_OVER_MAX_DELAY 13
#define VYR_REASON_OVER_MAX_LOST 14
#define VYR_REASON_FORCE_MANUAL 16
#define VYR_REASON_INNER_IP 2
#define VYR_REASON_NOT_IN_IP_TABLE 3
#define VYR_REASON_EXCLUDED_PORT 4
#define VYR_REASON_NO_ROUTE 6
#define VYR_REASON_NO_IP_TABLE 8
#define VYR_REASON_NO_ROUTE_TABLE 9
#define VYR_REASON_IS_PROXY 15

/* An array of negative size, and so an error, if a compiler lays a record out differently. */
#define VYR_CHECK_SIZE(record, size) \
  typedef char record##_has_another_size[sizeof(record) == (size) ? 1 : -1]
#define VYR_CHECK_OFFSET(record, field, offset) \
  typedef char record##_##field##_is_elsewhere[offsetof(record, field) == (offset) ? 1 : -1]

VYR_CHECK_SIZE(vyr_shared_mem_header, 12);
VYR_CHECK_OFFSET(vyr_shared_mem_header, shared_mem_size, 0);
VYR_CHECK_OFFSET(vyr_shared_mem_header, major_ver, 4);
VYR_CHECK_OFFSET(vyr_shared_mem_header, minor_ver, 8);
VYR_CHECK_SIZE(vyr_route_proxy_info, 164);
VYR_CHECK_OFFSET(vyr_route_proxy_info, type, 0);
VYR_CHECK_OFFSET(vyr_route_proxy_info, flag, 4);
VYR_CHECK_OFFSET(vyr_route_proxy_info, proxy_addr, 8);
VYR_CHECK_OFFSET(vyr_route_proxy_info, proxy_port, 40);
VYR_CHECK_OFFSET(vyr_route_proxy_info, reserved_42, 42);
VYR_CHECK_OFFSET(vyr_route_proxy_info, proxy_idc, 44);
VYR_CHECK_OFFSET(vyr_route_proxy_info, proxy_isp, 48);
VYR_CHECK_OFFSET(vyr_route_proxy_info, proxy_name, 52);
VYR_CHECK_OFFSET(vyr_route_proxy_info, section1_delay, 116);
VYR_CHECK_OFFSET(vyr_route_proxy_info, section1_lost, 120);
VYR_CHECK_OFFSET(vyr_route_proxy_info, to_proxy_speed_isp, 124);
VYR_CHECK_OFFSET(vyr_route_proxy_info, to_proxy_speed_ip, 128);
VYR_CHECK_OFFSET(vyr_route_proxy_info, user_isp, 132);
VYR_CHECK_OFFSET(vyr_route_proxy_info, user_ip, 136);
VYR_CHECK_OFFSET(vyr_route_proxy_info, surport_isps, 140);
VYR_CHECK_OFFSET(vyr_route_proxy_info, version, 144);
VYR_CHECK_OFFSET(vyr_route_proxy_info, decision, 148);
VYR_CHECK_OFFSET(vyr_route_proxy_info, section2_delay, 152);
VYR_CHECK_OFFSET(vyr_route_proxy_info, section2_lost, 156);
VYR_CHECK_OFFSET(vyr_route_proxy_info, last_node, 160);
VYR_CHECK_SIZE(vyr_switch_proxy_info, 336);
VYR_CHECK_OFFSET(vyr_switch_proxy_info, proxies, 0);
VYR_CHECK_OFFSET(vyr_switch_proxy_info, game_idc, 328);
VYR_CHECK_OFFSET(vyr_switch_proxy_info, last_node, 332);
VYR_CHECK_SIZE(vyr_glt_route_info, 236);
VYR_CHECK_OFFSET(vyr_glt_route_info, game_idc, 0);
VYR_CHECK_OFFSET(vyr_glt_route_info, glt_head, 4);
VYR_CHECK_OFFSET(vyr_glt_route_info, proxy, 72);
VYR_CHECK_SIZE(vyr_launch_test_region, 15120);
VYR_CHECK_OFFSET(vyr_launch_test_region, header, 0);
VYR_CHECK_OFFSET(vyr_launch_test_region, valid_count, 12);
VYR_CHECK_OFFSET(vyr_launch_test_region, records, 16);
VYR_CHECK_SIZE(vyr_port_idc_record, 8);
VYR_CHECK_OFFSET(vyr_port_idc_record, port, 0);
VYR_CHECK_OFFSET(vyr_port_idc_record, idc, 4);
VYR_CHECK_SIZE(vyr_reach_record, 16);
VYR_CHECK_OFFSET(vyr_reach_record, game_idc, 0);
VYR_CHECK_OFFSET(vyr_reach_record, delay, 4);
VYR_CHECK_OFFSET(vyr_reach_record, reserved_8, 8);
VYR_CHECK_SIZE(vyr_reachability_table, 1032);
VYR_CHECK_OFFSET(vyr_reachability_table, proxy_idc, 0);
VYR_CHECK_OFFSET(vyr_reachability_table, reach_count, 4);
VYR_CHECK_OFFSET(vyr_reachability_table, records, 8);
VYR_CHECK_SIZE(vyr_acc_config_record, 13368);
VYR_CHECK_OFFSET(vyr_acc_config_record, valid, 0);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_4, 4);
VYR_CHECK_OFFSET(vyr_acc_config_record, game_id, 8);
VYR_CHECK_OFFSET(vyr_acc_config_record, net_mode, 16);
VYR_CHECK_OFFSET(vyr_acc_config_record, path_count, 20);
VYR_CHECK_OFFSET(vyr_acc_config_record, game_paths, 24);
VYR_CHECK_OFFSET(vyr_acc_config_record, excluded_port_count, 2624);
VYR_CHECK_OFFSET(vyr_acc_config_record, excluded_ports, 2628);
VYR_CHECK_OFFSET(vyr_acc_config_record, uin, 2756);
VYR_CHECK_OFFSET(vyr_acc_config_record, second_text, 2820);
VYR_CHECK_OFFSET(vyr_acc_config_record, log_level, 2884);
VYR_CHECK_OFFSET(vyr_acc_config_record, log_path, 2888);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_3148, 3148);
VYR_CHECK_OFFSET(vyr_acc_config_record, zone_id, 3152);
VYR_CHECK_OFFSET(vyr_acc_config_record, zone_word, 3160);
VYR_CHECK_OFFSET(vyr_acc_config_record, acc_mode, 3164);
VYR_CHECK_OFFSET(vyr_acc_config_record, manual_mode, 3168);
VYR_CHECK_OFFSET(vyr_acc_config_record, forced_proxy, 3172);
VYR_CHECK_OFFSET(vyr_acc_config_record, manual_routes, 3336);
VYR_CHECK_OFFSET(vyr_acc_config_record, reachability, 10056);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_words, 11088);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_word, 11096);
VYR_CHECK_OFFSET(vyr_acc_config_record, game_launch_test_use, 11100);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_11101, 11101);
VYR_CHECK_OFFSET(vyr_acc_config_record, glt_word, 11104);
VYR_CHECK_OFFSET(vyr_acc_config_record, wait_route, 11108);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_11109, 11109);
VYR_CHECK_OFFSET(vyr_acc_config_record, lost_calc_unit_size, 11112);
VYR_CHECK_OFFSET(vyr_acc_config_record, short_cycle, 11116);
VYR_CHECK_OFFSET(vyr_acc_config_record, data_link_short_cycle_lost, 11117);
VYR_CHECK_OFFSET(vyr_acc_config_record, data_link_long_cycle_lost, 11118);
VYR_CHECK_OFFSET(vyr_acc_config_record, long_cycle, 11119);
VYR_CHECK_OFFSET(vyr_acc_config_record, recovery_window_word, 11120);
VYR_CHECK_OFFSET(vyr_acc_config_record, data_link_short_cycle_pkg, 11122);
VYR_CHECK_OFFSET(vyr_acc_config_record, data_link_long_cycle_pkg, 11124);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_11126, 11126);
VYR_CHECK_OFFSET(vyr_acc_config_record, norm_test_interval, 11128);
VYR_CHECK_OFFSET(vyr_acc_config_record, high_freq_test_interval, 11132);
VYR_CHECK_OFFSET(vyr_acc_config_record, high_freq_test_time, 11136);
VYR_CHECK_OFFSET(vyr_acc_config_record, max_delay_avg, 11140);
VYR_CHECK_OFFSET(vyr_acc_config_record, max_delay_amp, 11142);
VYR_CHECK_OFFSET(vyr_acc_config_record, max_real_route_lost, 11144);
VYR_CHECK_OFFSET(vyr_acc_config_record, link_switch_mask, 11145);
VYR_CHECK_OFFSET(vyr_acc_config_record, switch_open, 11146);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_11147, 11147);
VYR_CHECK_OFFSET(vyr_acc_config_record, max_link_except_rep_num, 11148);
VYR_CHECK_OFFSET(vyr_acc_config_record, ignore_high_freq_test_time, 11150);
VYR_CHECK_OFFSET(vyr_acc_config_record, max_high_freq_test_count, 11152);
VYR_CHECK_OFFSET(vyr_acc_config_record, watching_time_span, 11154);
VYR_CHECK_OFFSET(vyr_acc_config_record, list_text, 11156);
VYR_CHECK_OFFSET(vyr_acc_config_record, game_link_switch_open, 11285);
VYR_CHECK_OFFSET(vyr_acc_config_record, link_switch_min_inter, 11286);
VYR_CHECK_OFFSET(vyr_acc_config_record, max_link_switch_count, 11288);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_11290, 11290);
VYR_CHECK_OFFSET(vyr_acc_config_record, switching_high_freq_test_interval, 11292);
VYR_CHECK_OFFSET(vyr_acc_config_record, switching_high_freq_test_time, 11296);
VYR_CHECK_OFFSET(vyr_acc_config_record, switching_max_delay_avg, 11300);
VYR_CHECK_OFFSET(vyr_acc_config_record, switching_max_delay_amp, 11302);
VYR_CHECK_OFFSET(vyr_acc_config_record, switching_max_real_route_lost, 11304);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_11305, 11305);
VYR_CHECK_OFFSET(vyr_acc_config_record, max_valid_test_delay, 11306);
VYR_CHECK_OFFSET(vyr_acc_config_record, port_idc_count, 11308);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_11310, 11310);
VYR_CHECK_OFFSET(vyr_acc_config_record, port_idc_records, 11312);
VYR_CHECK_OFFSET(vyr_acc_config_record, game_vip_level, 13360);
VYR_CHECK_OFFSET(vyr_acc_config_record, reserved_13364, 13364);
VYR_CHECK_SIZE(vyr_restriction_region, 134216);
VYR_CHECK_OFFSET(vyr_restriction_region, header, 0);
VYR_CHECK_OFFSET(vyr_restriction_region, reserved_12, 12);
VYR_CHECK_OFFSET(vyr_restriction_region, games, 16);
VYR_CHECK_OFFSET(vyr_restriction_region, route_binary_file_path, 133696);
VYR_CHECK_OFFSET(vyr_restriction_region, second_path, 133956);
VYR_CHECK_SIZE(vyr_mending_record, 32);
VYR_CHECK_OFFSET(vyr_mending_record, mended, 0);
VYR_CHECK_OFFSET(vyr_mending_record, next_node_ms, 4);
VYR_CHECK_OFFSET(vyr_mending_record, direct_ms, 8);
VYR_CHECK_OFFSET(vyr_mending_record, node_rest_ms, 12);
VYR_CHECK_OFFSET(vyr_mending_record, reserved_16, 16);
VYR_CHECK_SIZE(vyr_mending_region, 336);
VYR_CHECK_OFFSET(vyr_mending_region, header, 0);
VYR_CHECK_OFFSET(vyr_mending_region, reserved_12, 12);
VYR_CHECK_OFFSET(vyr_mending_region, games, 16);
VYR_CHECK_SIZE(vyr_ip_record, 8);
VYR_CHECK_OFFSET(vyr_ip_record, game_idc, 0);
VYR_CHECK_OFFSET(vyr_ip_record, ip, 4);
VYR_CHECK_SIZE(vyr_ip_table_region, 655380);
VYR_CHECK_OFFSET(vyr_ip_table_region, header, 0);
VYR_CHECK_OFFSET(vyr_ip_table_region, ip_count, 12);
VYR_CHECK_OFFSET(vyr_ip_table_region, records, 16);
VYR_CHECK_OFFSET(vyr_ip_table_region, iptable_word, 655376);
VYR_CHECK_SIZE(vyr_spur_ip_record, 8);
VYR_CHECK_OFFSET(vyr_spur_ip_record, game_idc, 0);
VYR_CHECK_OFFSET(vyr_spur_ip_record, ip, 4);
VYR_CHECK_SIZE(vyr_spur_region, 16400);
VYR_CHECK_OFFSET(vyr_spur_region, header, 0);
VYR_CHECK_OFFSET(vyr_spur_region, spur_count, 12);
VYR_CHECK_OFFSET(vyr_spur_region, records, 16);
VYR_CHECK_SIZE(vyr_blacklist_record, 24);
VYR_CHECK_OFFSET(vyr_blacklist_record, game_id, 0);
VYR_CHECK_OFFSET(vyr_blacklist_record, ip, 8);
VYR_CHECK_OFFSET(vyr_blacklist_record, port, 12);
VYR_CHECK_OFFSET(vyr_blacklist_record, type, 16);
VYR_CHECK_OFFSET(vyr_blacklist_record, reserved_20, 20);
VYR_CHECK_SIZE(vyr_blacklist_region, 24600);
VYR_CHECK_OFFSET(vyr_blacklist_region, header, 0);
VYR_CHECK_OFFSET(vyr_blacklist_region, reserved_12, 12);
VYR_CHECK_OFFSET(vyr_blacklist_region, blacklist_count, 16);
VYR_CHECK_OFFSET(vyr_blacklist_region, reserved_20, 20);
VYR_CHECK_OFFSET(vyr_blacklist_region, records, 24);
VYR_CHECK_SIZE(vyr_proxy_ref, 20);
VYR_CHECK_OFFSET(vyr_proxy_ref, proxy_idc, 0);
VYR_CHECK_OFFSET(vyr_proxy_ref, section2_delay, 4);
VYR_CHECK_OFFSET(vyr_proxy_ref, section2_lost, 8);
VYR_CHECK_OFFSET(vyr_proxy_ref, decision, 12);
VYR_CHECK_OFFSET(vyr_proxy_ref, last_node, 16);
VYR_CHECK_SIZE(vyr_switch_group, 44);
VYR_CHECK_OFFSET(vyr_switch_group, last_node, 0);
VYR_CHECK_OFFSET(vyr_switch_group, candidates, 4);
VYR_CHECK_SIZE(vyr_route_entry, 372);
VYR_CHECK_OFFSET(vyr_route_entry, entry_word0, 0);
VYR_CHECK_OFFSET(vyr_route_entry, entry_word1, 4);
VYR_CHECK_OFFSET(vyr_route_entry, game_idc, 8);
VYR_CHECK_OFFSET(vyr_route_entry, entry_word3, 12);
VYR_CHECK_OFFSET(vyr_route_entry, entry_word4, 16);
VYR_CHECK_OFFSET(vyr_route_entry, entry_name, 20);
VYR_CHECK_OFFSET(vyr_route_entry, entry_word21, 84);
VYR_CHECK_OFFSET(vyr_route_entry, direct_delay, 88);
VYR_CHECK_OFFSET(vyr_route_entry, direct_lost, 92);
VYR_CHECK_OFFSET(vyr_route_entry, top_refs, 96);
VYR_CHECK_OFFSET(vyr_route_entry, ref_both_modes, 156);
VYR_CHECK_OFFSET(vyr_route_entry, ref_default, 176);
VYR_CHECK_OFFSET(vyr_route_entry, switch_groups, 196);
VYR_CHECK_SIZE(vyr_route_set, 22324);
VYR_CHECK_OFFSET(vyr_route_set, route_count, 0);
VYR_CHECK_OFFSET(vyr_route_set, routes, 4);
VYR_CHECK_SIZE(vyr_proxy_record, 140);
VYR_CHECK_OFFSET(vyr_proxy_record, type, 0);
VYR_CHECK_OFFSET(vyr_proxy_record, flag, 4);
VYR_CHECK_OFFSET(vyr_proxy_record, proxy_addr, 8);
VYR_CHECK_OFFSET(vyr_proxy_record, proxy_port, 40);
VYR_CHECK_OFFSET(vyr_proxy_record, reserved_42, 42);
VYR_CHECK_OFFSET(vyr_proxy_record, proxy_idc, 44);
VYR_CHECK_OFFSET(vyr_proxy_record, proxy_isp, 48);
VYR_CHECK_OFFSET(vyr_proxy_record, proxy_name, 52);
VYR_CHECK_OFFSET(vyr_proxy_record, section1_delay, 116);
VYR_CHECK_OFFSET(vyr_proxy_record, section1_lost, 120);
VYR_CHECK_OFFSET(vyr_proxy_record, to_proxy_speed_isp, 124);
VYR_CHECK_OFFSET(vyr_proxy_record, to_proxy_speed_ip, 128);
VYR_CHECK_OFFSET(vyr_proxy_record, surport_isps, 132);
VYR_CHECK_OFFSET(vyr_proxy_record, version, 136);
VYR_CHECK_SIZE(vyr_route_table_image, 65668);
VYR_CHECK_OFFSET(vyr_route_table_image, route_sets, 0);
VYR_CHECK_OFFSET(vyr_route_table_image, header0, 44648);
VYR_CHECK_OFFSET(vyr_route_table_image, header1, 44652);
VYR_CHECK_OFFSET(vyr_route_table_image, header2, 44656);
VYR_CHECK_OFFSET(vyr_route_table_image, header3, 44660);
VYR_CHECK_OFFSET(vyr_route_table_image, proxy_count, 44664);
VYR_CHECK_OFFSET(vyr_route_table_image, proxies, 44668);
VYR_CHECK_SIZE(vyr_route_region, 65680);
VYR_CHECK_OFFSET(vyr_route_region, header, 0);
VYR_CHECK_OFFSET(vyr_route_region, image, 12);
VYR_CHECK_SIZE(vyr_acc_decision_info, 1128);
VYR_CHECK_OFFSET(vyr_acc_decision_info, used, 0);
VYR_CHECK_OFFSET(vyr_acc_decision_info, guid, 1);
VYR_CHECK_OFFSET(vyr_acc_decision_info, reserved_66, 66);
VYR_CHECK_OFFSET(vyr_acc_decision_info, acc_reason, 68);
VYR_CHECK_OFFSET(vyr_acc_decision_info, game_id, 72);
VYR_CHECK_OFFSET(vyr_acc_decision_info, zone_id, 80);
VYR_CHECK_OFFSET(vyr_acc_decision_info, net_mode, 88);
VYR_CHECK_OFFSET(vyr_acc_decision_info, process_id, 92);
VYR_CHECK_OFFSET(vyr_acc_decision_info, socket, 96);
VYR_CHECK_OFFSET(vyr_acc_decision_info, socket_type, 104);
VYR_CHECK_OFFSET(vyr_acc_decision_info, game_ip, 108);
VYR_CHECK_OFFSET(vyr_acc_decision_info, game_port, 112);
VYR_CHECK_OFFSET(vyr_acc_decision_info, game_idc, 116);
VYR_CHECK_OFFSET(vyr_acc_decision_info, entry_word3, 120);
VYR_CHECK_OFFSET(vyr_acc_decision_info, entry_word4, 124);
VYR_CHECK_OFFSET(vyr_acc_decision_info, entry_name, 128);
VYR_CHECK_OFFSET(vyr_acc_decision_info, entry_word21, 192);
VYR_CHECK_OFFSET(vyr_acc_decision_info, direct_delay, 196);
VYR_CHECK_OFFSET(vyr_acc_decision_info, direct_lost, 200);
VYR_CHECK_OFFSET(vyr_acc_decision_info, header0, 204);
VYR_CHECK_OFFSET(vyr_acc_decision_info, header1, 208);
VYR_CHECK_OFFSET(vyr_acc_decision_info, header2, 212);
VYR_CHECK_OFFSET(vyr_acc_decision_info, entry_word0, 216);
VYR_CHECK_OFFSET(vyr_acc_decision_info, entry_word1, 220);
VYR_CHECK_OFFSET(vyr_acc_decision_info, header3, 224);
VYR_CHECK_OFFSET(vyr_acc_decision_info, top_proxy, 228);
VYR_CHECK_OFFSET(vyr_acc_decision_info, selected_proxy, 720);
VYR_CHECK_OFFSET(vyr_acc_decision_info, game_launch_test_use, 884);
VYR_CHECK_OFFSET(vyr_acc_decision_info, reserved_885, 885);
VYR_CHECK_OFFSET(vyr_acc_decision_info, glt_route_info, 888);
VYR_CHECK_OFFSET(vyr_acc_decision_info, glt_word, 1124);
VYR_CHECK_SIZE(vyr_fine_stats, 24);
VYR_CHECK_OFFSET(vyr_fine_stats, delay_avg, 0);
VYR_CHECK_OFFSET(vyr_fine_stats, delay_max, 4);
VYR_CHECK_OFFSET(vyr_fine_stats, delay_min, 8);
VYR_CHECK_OFFSET(vyr_fine_stats, delay_amp, 12);
VYR_CHECK_OFFSET(vyr_fine_stats, total_recv, 16);
VYR_CHECK_OFFSET(vyr_fine_stats, total_send, 20);
VYR_CHECK_SIZE(vyr_over_stats, 16);
VYR_CHECK_OFFSET(vyr_over_stats, delay_avg, 0);
VYR_CHECK_OFFSET(vyr_over_stats, delay_max, 4);
VYR_CHECK_OFFSET(vyr_over_stats, delay_min, 8);
VYR_CHECK_OFFSET(vyr_over_stats, count, 12);
VYR_CHECK_SIZE(vyr_all_stats, 16);
VYR_CHECK_OFFSET(vyr_all_stats, delay_avg, 0);
VYR_CHECK_OFFSET(vyr_all_stats, delay_amp, 4);
VYR_CHECK_OFFSET(vyr_all_stats, recv_count, 8);
VYR_CHECK_OFFSET(vyr_all_stats, send_count, 12);
VYR_CHECK_SIZE(vyr_comm_info_record, 984);
VYR_CHECK_OFFSET(vyr_comm_info_record, used, 0);
VYR_CHECK_OFFSET(vyr_comm_info_record, reserved_1, 1);
VYR_CHECK_OFFSET(vyr_comm_info_record, game_id, 8);
VYR_CHECK_OFFSET(vyr_comm_info_record, socket_type, 16);
VYR_CHECK_OFFSET(vyr_comm_info_record, total_sent_bytes, 20);
VYR_CHECK_OFFSET(vyr_comm_info_record, total_sent_packets, 24);
VYR_CHECK_OFFSET(vyr_comm_info_record, total_sent_errors, 28);
VYR_CHECK_OFFSET(vyr_comm_info_record, first_send_error_code, 32);
VYR_CHECK_OFFSET(vyr_comm_info_record, curr_send_error_code, 36);
VYR_CHECK_OFFSET(vyr_comm_info_record, total_recv_bytes, 40);
VYR_CHECK_OFFSET(vyr_comm_info_record, total_recv_packets, 44);
VYR_CHECK_OFFSET(vyr_comm_info_record, total_recv_errors, 48);
VYR_CHECK_OFFSET(vyr_comm_info_record, first_recv_error_code, 52);
VYR_CHECK_OFFSET(vyr_comm_info_record, curr_recv_error_code, 56);
VYR_CHECK_OFFSET(vyr_comm_info_record, create_tick, 60);
VYR_CHECK_OFFSET(vyr_comm_info_record, life, 64);
VYR_CHECK_OFFSET(vyr_comm_info_record, idle, 68);
VYR_CHECK_OFFSET(vyr_comm_info_record, game_idc, 72);
VYR_CHECK_OFFSET(vyr_comm_info_record, game_ip, 76);
VYR_CHECK_OFFSET(vyr_comm_info_record, game_port, 336);
VYR_CHECK_OFFSET(vyr_comm_info_record, proxy_idc, 340);
VYR_CHECK_OFFSET(vyr_comm_info_record, proxy_ip, 344);
VYR_CHECK_OFFSET(vyr_comm_info_record, proxy_port, 604);
VYR_CHECK_OFFSET(vyr_comm_info_record, guid_str, 606);
VYR_CHECK_OFFSET(vyr_comm_info_record, reserved_671, 671);
VYR_CHECK_OFFSET(vyr_comm_info_record, user_isp, 716);
VYR_CHECK_OFFSET(vyr_comm_info_record, user_ip, 720);
VYR_CHECK_OFFSET(vyr_comm_info_record, frontend_fine, 724);
VYR_CHECK_OFFSET(vyr_comm_info_record, backend_fine, 748);
VYR_CHECK_OFFSET(vyr_comm_info_record, frontend_over, 772);
VYR_CHECK_OFFSET(vyr_comm_info_record, backend_over, 788);
VYR_CHECK_OFFSET(vyr_comm_info_record, frontend_all, 804);
VYR_CHECK_OFFSET(vyr_comm_info_record, backend_all, 820);
VYR_CHECK_OFFSET(vyr_comm_info_record, topology_type, 836);
VYR_CHECK_OFFSET(vyr_comm_info_record, direct_delay, 840);
VYR_CHECK_OFFSET(vyr_comm_info_record, direct_lost, 844);
VYR_CHECK_OFFSET(vyr_comm_info_record, section1_delay, 848);
VYR_CHECK_OFFSET(vyr_comm_info_record, section1_lost, 852);
VYR_CHECK_OFFSET(vyr_comm_info_record, section2_delay, 856);
VYR_CHECK_OFFSET(vyr_comm_info_record, ended, 860);
VYR_CHECK_OFFSET(vyr_comm_info_record, recovery_info, 861);
VYR_CHECK_OFFSET(vyr_comm_info_record, reserved_981, 981);
VYR_CHECK_SIZE(vyr_log_path_record, 280);
VYR_CHECK_OFFSET(vyr_log_path_record, used, 0);
VYR_CHECK_OFFSET(vyr_log_path_record, reserved_1, 1);
VYR_CHECK_OFFSET(vyr_log_path_record, game_id, 8);
VYR_CHECK_OFFSET(vyr_log_path_record, log_path, 16);
VYR_CHECK_OFFSET(vyr_log_path_record, reserved_276, 276);
VYR_CHECK_SIZE(vyr_lsp_loaded_record, 280);
VYR_CHECK_OFFSET(vyr_lsp_loaded_record, used, 0);
VYR_CHECK_OFFSET(vyr_lsp_loaded_record, reserved_1, 1);
VYR_CHECK_OFFSET(vyr_lsp_loaded_record, game_id, 8);
VYR_CHECK_OFFSET(vyr_lsp_loaded_record, process_name, 16);
VYR_CHECK_OFFSET(vyr_lsp_loaded_record, is_x64, 276);
VYR_CHECK_OFFSET(vyr_lsp_loaded_record, reserved_277, 277);
VYR_CHECK_SIZE(vyr_neg_ret_record, 184);
VYR_CHECK_OFFSET(vyr_neg_ret_record, used, 0);
VYR_CHECK_OFFSET(vyr_neg_ret_record, reserved_1, 1);
VYR_CHECK_OFFSET(vyr_neg_ret_record, neg_type, 4);
VYR_CHECK_OFFSET(vyr_neg_ret_record, game_id, 8);
VYR_CHECK_OFFSET(vyr_neg_ret_record, nego_result, 16);
VYR_CHECK_OFFSET(vyr_neg_ret_record, last_error, 20);
VYR_CHECK_OFFSET(vyr_neg_ret_record, game_idc, 24);
VYR_CHECK_OFFSET(vyr_neg_ret_record, game_ip, 28);
VYR_CHECK_OFFSET(vyr_neg_ret_record, game_port, 60);
VYR_CHECK_OFFSET(vyr_neg_ret_record, reserved_62, 62);
VYR_CHECK_OFFSET(vyr_neg_ret_record, proxy_idc, 64);
VYR_CHECK_OFFSET(vyr_neg_ret_record, proxy_ip, 68);
VYR_CHECK_OFFSET(vyr_neg_ret_record, proxy_port, 100);
VYR_CHECK_OFFSET(vyr_neg_ret_record, reserved_102, 102);
VYR_CHECK_OFFSET(vyr_neg_ret_record, process_id, 104);
VYR_CHECK_OFFSET(vyr_neg_ret_record, reserved_108, 108);
VYR_CHECK_OFFSET(vyr_neg_ret_record, reserved_value, 112);
VYR_CHECK_OFFSET(vyr_neg_ret_record, user_isp, 120);
VYR_CHECK_OFFSET(vyr_neg_ret_record, header3, 124);
VYR_CHECK_OFFSET(vyr_neg_ret_record, nego_count, 128);
VYR_CHECK_OFFSET(vyr_neg_ret_record, elapsed_ms, 132);
VYR_CHECK_OFFSET(vyr_neg_ret_record, user_ip, 136);
VYR_CHECK_OFFSET(vyr_neg_ret_record, guid, 140);
VYR_CHECK_OFFSET(vyr_neg_ret_record, reserved_177, 177);
VYR_CHECK_SIZE(vyr_real_nego_record, 152);
VYR_CHECK_OFFSET(vyr_real_nego_record, used, 0);
VYR_CHECK_OFFSET(vyr_real_nego_record, reserved_1, 1);
VYR_CHECK_OFFSET(vyr_real_nego_record, game_id, 8);
VYR_CHECK_OFFSET(vyr_real_nego_record, user_isp, 16);
VYR_CHECK_OFFSET(vyr_real_nego_record, user_ip, 20);
VYR_CHECK_OFFSET(vyr_real_nego_record, guid, 24);
VYR_CHECK_OFFSET(vyr_real_nego_record, reserved_89, 89);
VYR_CHECK_OFFSET(vyr_real_nego_record, proxy_id, 92);
VYR_CHECK_OFFSET(vyr_real_nego_record, proxy_ip, 96);
VYR_CHECK_OFFSET(vyr_real_nego_record, proxy_port, 128);
VYR_CHECK_OFFSET(vyr_real_nego_record, last_node_id, 132);
VYR_CHECK_OFFSET(vyr_real_nego_record, last_node_ip, 136);
VYR_CHECK_OFFSET(vyr_real_nego_record, game_ip, 140);
VYR_CHECK_OFFSET(vyr_real_nego_record, game_port, 144);
VYR_CHECK_OFFSET(vyr_real_nego_record, stamp, 148);
VYR_CHECK_SIZE(vyr_recovery_switch_record, 584);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, used, 0);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, reserved_1, 1);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, game_id, 8);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, data_link_small_section_pack, 16);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, data_link_small_section_lost, 20);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, data_link_full_section_pack, 24);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, data_link_full_section_lost, 28);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, need_switch, 32);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, is_switch_succ, 36);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, count, 40);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, proxy_idc, 44);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, elapse_time, 48);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, total_recv_pack, 52);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, total_send_pack, 56);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, link_type, 60);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, guid, 64);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, switch_condition, 101);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, acc_info, 221);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, client_info, 341);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, fe_be, 461);
VYR_CHECK_OFFSET(vyr_recovery_switch_record, reserved_581, 581);
VYR_CHECK_SIZE(vyr_decision_region, 121840);
VYR_CHECK_OFFSET(vyr_decision_region, header, 0);
VYR_CHECK_OFFSET(vyr_decision_region, reserved_12, 12);
VYR_CHECK_OFFSET(vyr_decision_region, slots, 16);
VYR_CHECK_SIZE(vyr_communication_region, 31504);
VYR_CHECK_OFFSET(vyr_communication_region, header, 0);
VYR_CHECK_OFFSET(vyr_communication_region, reserved_12, 12);
VYR_CHECK_OFFSET(vyr_communication_region, slots, 16);
VYR_CHECK_SIZE(vyr_log_path_region, 4496);
VYR_CHECK_OFFSET(vyr_log_path_region, header, 0);
VYR_CHECK_OFFSET(vyr_log_path_region, reserved_12, 12);
VYR_CHECK_OFFSET(vyr_log_path_region, slots, 16);
VYR_CHECK_SIZE(vyr_loaded_region, 35856);
VYR_CHECK_OFFSET(vyr_loaded_region, header, 0);
VYR_CHECK_OFFSET(vyr_loaded_region, reserved_12, 12);
VYR_CHECK_OFFSET(vyr_loaded_region, slots, 16);
VYR_CHECK_SIZE(vyr_negotiation_result_region, 2960);
VYR_CHECK_OFFSET(vyr_negotiation_result_region, header, 0);
VYR_CHECK_OFFSET(vyr_negotiation_result_region, reserved_12, 12);
VYR_CHECK_OFFSET(vyr_negotiation_result_region, slots, 16);
VYR_CHECK_SIZE(vyr_real_negotiation_region, 16432);
VYR_CHECK_OFFSET(vyr_real_negotiation_region, header, 0);
VYR_CHECK_OFFSET(vyr_real_negotiation_region, reserved_12, 12);
VYR_CHECK_OFFSET(vyr_real_negotiation_region, slots, 16);
VYR_CHECK_SIZE(vyr_recovery_switch_region, 9360);
VYR_CHECK_OFFSET(vyr_recovery_switch_region, header, 0);
VYR_CHECK_OFFSET(vyr_recovery_switch_region, reserved_12, 12);
VYR_CHECK_OFFSET(vyr_recovery_switch_region, slots, 16);

#undef VYR_CHECK_SIZE
#undef VYR_CHECK_OFFSET
/* clang-format on */

#endif
