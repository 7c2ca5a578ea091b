# The shared regions and report records of vyr, for the Kaitai Struct compiler.
# Made by scripts/make_regions_header.py from the records in src/. Do not edit.
# A mapping is one of the types whose name ends in _region; that of the route table is route_mapping.
meta:
  id: vyr_regions
  endian: le
  encoding: UTF-8
doc-ref: docs/regions.md
types:
  route_mapping:
    seq:
      - {id: selector, type: u4, doc: "which of the two buffers is read; above 1 means 1"}
      - {id: buffers, type: route_region, repeat: expr, repeat-expr: 2}
  shared_mem_header:  # 12 bytes
    seq:
      - {id: shared_mem_size, type: u4, doc: "of the whole record, this header included"}
      - {id: major_ver, type: u4}
      - {id: minor_ver, type: u4}
  route_proxy_info:  # 164 bytes
    seq:
      - {id: type, type: u4}
      - {id: flag, type: u4}
      - {id: proxy_addr, size: 32, doc: "dotted IPv4 text"}
      - {id: proxy_port, type: u2, doc: "host byte order"}
      - {id: reserved_42, size: 2}
      - {id: proxy_idc, type: u4, doc: "identity of the proxy"}
      - {id: proxy_isp, type: u4}
      - {id: proxy_name, size: 64}
      - {id: section1_delay, type: u4, doc: "from the user to the proxy, milliseconds"}
      - {id: section1_lost, type: u4, doc: "percent"}
      - {id: to_proxy_speed_isp, type: u4}
      - {id: to_proxy_speed_ip, type: u4}
      - {id: user_isp, type: u4, doc: "filled in by the node's answer, as user_ip is"}
      - {id: user_ip, type: u4}
      - {id: surport_isps, type: u4, doc: "bit mask of the providers that the proxy serves"}
      - {id: version, type: u4}
      - {id: decision, type: u4}
      - {id: section2_delay, type: u4, doc: "from the proxy to the game server, milliseconds"}
      - {id: section2_lost, type: u4, doc: "percent"}
      - {id: last_node, type: u4, doc: "identity of the last node on this path"}
  switch_proxy_info:  # 336 bytes
    seq:
      - {id: proxies, type: route_proxy_info, repeat: expr, repeat-expr: 2}
      - {id: game_idc, type: u4}
      - {id: last_node, type: u4}
  glt_route_info:  # 236 bytes
    seq:
      - {id: game_idc, type: u4}
      - {id: glt_head, size: 68, doc: "copied into reports, otherwise unused"}
      - {id: proxy, type: route_proxy_info}
  launch_test_region:  # 15120 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: valid_count, type: u4}
      - {id: records, type: glt_route_info, repeat: expr, repeat-expr: 64}
  port_idc_record:  # 8 bytes
    seq:
      - {id: port, type: u4, doc: "host byte order"}
      - {id: idc, type: u4}
  reach_record:  # 16 bytes
    seq:
      - {id: game_idc, type: u4}
      - {id: delay, type: u4}
      - {id: reserved_8, size: 8}
  reachability_table:  # 1032 bytes
    seq:
      - {id: proxy_idc, type: u4}
      - {id: reach_count, type: u4}
      - {id: records, type: reach_record, repeat: expr, repeat-expr: 64}
  acc_config_record:  # 13368 bytes
    seq:
      - {id: valid, type: u4, doc: "not 0: a used slot, a loaded configuration"}
      - {id: reserved_4, size: 4}
      - {id: game_id, type: u8}
      - {id: net_mode, type: u4}
      - {id: path_count, type: u4}
      - {id: game_paths, size: 260, repeat: expr, repeat-expr: 10, doc: "full paths of the game's programs"}
      - {id: excluded_port_count, type: u4}
      - {id: excluded_ports, type: u4, repeat: expr, repeat-expr: 32, doc: "TCP, host byte order, never accelerated"}
      - {id: uin, size: 64, doc: "the user's number in decimal"}
      - {id: second_text, size: 64}
      - {id: log_level, type: u4, doc: "lowest level that is written"}
      - {id: log_path, size: 260, doc: "the log files are in its parent directory"}
      - {id: reserved_3148, size: 4}
      - {id: zone_id, type: u8}
      - {id: zone_word, type: u4}
      - {id: acc_mode, type: u4, doc: "0: no acceleration; 2: second route set, manual routes allowed"}
      - {id: manual_mode, type: u4, doc: "not 0: forced proxy and manual routes, where acc_mode is 2"}
      - {id: forced_proxy, type: route_proxy_info}
      - {id: manual_routes, type: switch_proxy_info, repeat: expr, repeat-expr: 20}
      - {id: reachability, type: reachability_table}
      - {id: reserved_words, type: u2, repeat: expr, repeat-expr: 4}
      - {id: reserved_word, type: u4}
      - {id: game_launch_test_use, type: u1}
      - {id: reserved_11101, size: 3}
      - {id: glt_word, type: u4}
      - {id: wait_route, type: u1, doc: "wait for the route tables at start-up"}
      - {id: reserved_11109, size: 3}
      - {id: lost_calc_unit_size, type: u4, doc: "low 16 bits count"}
      - {id: short_cycle, type: u1}
      - {id: data_link_short_cycle_lost, type: u1}
      - {id: data_link_long_cycle_lost, type: u1}
      - {id: long_cycle, type: u1}
      - {id: recovery_window_word, type: u2}
      - {id: data_link_short_cycle_pkg, type: u2}
      - {id: data_link_long_cycle_pkg, type: u2}
      - {id: reserved_11126, size: 2}
      - {id: norm_test_interval, type: u4, doc: "milliseconds"}
      - {id: high_freq_test_interval, type: u4, doc: "milliseconds"}
      - {id: high_freq_test_time, type: u4, doc: "milliseconds"}
      - {id: max_delay_avg, type: u2, doc: "milliseconds"}
      - {id: max_delay_amp, type: u2, doc: "milliseconds"}
      - {id: max_real_route_lost, type: u1, doc: "percent"}
      - {id: link_switch_mask, type: u1, doc: "bit n: links of type n are measured"}
      - {id: switch_open, type: u1}
      - {id: reserved_11147, type: u1}
      - {id: max_link_except_rep_num, type: u2}
      - {id: ignore_high_freq_test_time, type: u2, doc: "seconds"}
      - {id: max_high_freq_test_count, type: u2}
      - {id: watching_time_span, type: u2, doc: "seconds"}
      - {id: list_text, size: 129, doc: "game ids in decimal, comma-separated"}
      - {id: game_link_switch_open, type: u1}
      - {id: link_switch_min_inter, type: u2, doc: "seconds"}
      - {id: max_link_switch_count, type: u2}
      - {id: reserved_11290, size: 2}
      - {id: switching_high_freq_test_interval, type: u4, doc: "milliseconds"}
      - {id: switching_high_freq_test_time, type: u4, doc: "milliseconds"}
      - {id: switching_max_delay_avg, type: u2, doc: "milliseconds"}
      - {id: switching_max_delay_amp, type: u2, doc: "milliseconds"}
      - {id: switching_max_real_route_lost, type: u1, doc: "percent"}
      - {id: reserved_11305, type: u1}
      - {id: max_valid_test_delay, type: u2, doc: "milliseconds"}
      - {id: port_idc_count, type: u2}
      - {id: reserved_11310, size: 2}
      - {id: port_idc_records, type: port_idc_record, repeat: expr, repeat-expr: 256}
      - {id: game_vip_level, type: u4, doc: "digit that selects records of the IP table"}
      - {id: reserved_13364, size: 4}
  restriction_region:  # 134216 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: reserved_12, size: 4}
      - {id: games, type: acc_config_record, repeat: expr, repeat-expr: 10}
      - {id: route_binary_file_path, size: 260}
      - {id: second_path, size: 260}
  mending_record:  # 32 bytes
    seq:
      - {id: mended, type: u4}
      - {id: next_node_ms, type: u4, doc: "for the first node's answer, before another way is tried"}
      - {id: direct_ms, type: u4, doc: "for the second node's, before the game server itself is tried"}
      - {id: node_rest_ms, type: u4, doc: "in which a node that has failed is not asked again"}
      - {id: reserved_16, size: 16, doc: "zero"}
  mending_region:  # 336 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: reserved_12, size: 4}
      - {id: games, type: mending_record, repeat: expr, repeat-expr: 10, doc: "each for the game in the same place of restriction_region"}
  ip_record:  # 8 bytes
    seq:
      - {id: game_idc, type: u4}
      - {id: ip, type: u4, doc: "network byte order"}
  ip_table_region:  # 655380 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: ip_count, type: u4}
      - {id: records, type: ip_record, repeat: expr, repeat-expr: 81920}
      - {id: iptable_word, type: u4}
  spur_ip_record:  # 8 bytes
    seq:
      - {id: game_idc, type: u4}
      - {id: ip, type: u4, doc: "network byte order"}
  spur_region:  # 16400 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: spur_count, type: u4}
      - {id: records, type: spur_ip_record, repeat: expr, repeat-expr: 2048}
  blacklist_record:  # 24 bytes
    seq:
      - {id: game_id, type: u8}
      - {id: ip, type: u4, doc: "network byte order"}
      - {id: port, type: u4, doc: "host byte order"}
      - {id: type, type: u4}
      - {id: reserved_20, size: 4}
  blacklist_region:  # 24600 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: reserved_12, size: 4}
      - {id: blacklist_count, type: u4}
      - {id: reserved_20, size: 4}
      - {id: records, type: blacklist_record, repeat: expr, repeat-expr: 1024}
  proxy_ref:  # 20 bytes
    seq:
      - {id: proxy_idc, type: u4}
      - {id: section2_delay, type: u4, doc: "from the proxy to the game server, milliseconds"}
      - {id: section2_lost, type: u4, doc: "percent"}
      - {id: decision, type: u4, doc: "one of the VYR_DECISION_ values"}
      - {id: last_node, type: u4, doc: "identity of the last node on this path"}
  switch_group:  # 44 bytes
    seq:
      - {id: last_node, type: u4}
      - {id: candidates, type: proxy_ref, repeat: expr, repeat-expr: 2}
  route_entry:  # 372 bytes
    seq:
      - {id: entry_word0, type: u4}
      - {id: entry_word1, type: u4}
      - {id: game_idc, type: u4}
      - {id: entry_word3, type: u4}
      - {id: entry_word4, type: u4}
      - {id: entry_name, size: 64}
      - {id: entry_word21, type: u4}
      - {id: direct_delay, type: u4, doc: "milliseconds"}
      - {id: direct_lost, type: u4, doc: "percent"}
      - {id: top_refs, type: proxy_ref, repeat: expr, repeat-expr: 3}
      - {id: ref_both_modes, type: proxy_ref, doc: "where net_mode has both of its mode bits"}
      - {id: ref_default, type: proxy_ref}
      - {id: switch_groups, type: switch_group, repeat: expr, repeat-expr: 4}
  route_set:  # 22324 bytes
    seq:
      - {id: route_count, type: u4}
      - {id: routes, type: route_entry, repeat: expr, repeat-expr: 60}
  proxy_record:  # 140 bytes
    seq:
      - {id: type, type: u4}
      - {id: flag, type: u4}
      - {id: proxy_addr, size: 32, doc: "dotted IPv4 text"}
      - {id: proxy_port, type: u2, doc: "host byte order"}
      - {id: reserved_42, size: 2}
      - {id: proxy_idc, type: u4, doc: "identity of the proxy"}
      - {id: proxy_isp, type: u4}
      - {id: proxy_name, size: 64}
      - {id: section1_delay, type: u4, doc: "from the user to the proxy, milliseconds"}
      - {id: section1_lost, type: u4, doc: "percent"}
      - {id: to_proxy_speed_isp, type: u4}
      - {id: to_proxy_speed_ip, type: u4}
      - {id: surport_isps, type: u4, doc: "bit mask of the providers that the proxy serves"}
      - {id: version, type: u4}
  route_table_image:  # 65668 bytes
    seq:
      - {id: route_sets, type: route_set, repeat: expr, repeat-expr: 2, doc: "the second where acc_mode is 2"}
      - {id: header0, type: u4}
      - {id: header1, type: u4}
      - {id: header2, type: u4}
      - {id: header3, type: u4}
      - {id: proxy_count, type: u4}
      - {id: proxies, type: proxy_record, repeat: expr, repeat-expr: 150}
  route_region:  # 65680 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: image, type: route_table_image}
  acc_decision_info:  # 1128 bytes
    seq:
      - {id: used, type: u1, doc: "1 once filled"}
      - {id: guid, size: 65, doc: "the socket's identifying text"}
      - {id: reserved_66, size: 2}
      - {id: acc_reason, type: s4, doc: "one of the VYR_REASON_ values"}
      - {id: game_id, type: u8}
      - {id: zone_id, type: u8}
      - {id: net_mode, type: u4}
      - {id: process_id, type: u4}
      - {id: socket, type: u8, doc: "widened with zero"}
      - {id: socket_type, type: s4, doc: "0 stream, 1 datagram, -1 other"}
      - {id: game_ip, type: u4, doc: "host byte order"}
      - {id: game_port, type: u4, doc: "host byte order"}
      - {id: game_idc, type: u4}
      - {id: entry_word3, type: u4}
      - {id: entry_word4, type: u4}
      - {id: entry_name, size: 64}
      - {id: entry_word21, type: u4}
      - {id: direct_delay, type: u4, doc: "milliseconds"}
      - {id: direct_lost, type: u4, doc: "percent"}
      - {id: header0, type: u4}
      - {id: header1, type: u4}
      - {id: header2, type: u4}
      - {id: entry_word0, type: u4}
      - {id: entry_word1, type: u4}
      - {id: header3, type: u4}
      - {id: top_proxy, type: route_proxy_info, repeat: expr, repeat-expr: 3}
      - {id: selected_proxy, type: route_proxy_info, doc: "the one that the session uses"}
      - {id: game_launch_test_use, type: u1}
      - {id: reserved_885, size: 3}
      - {id: glt_route_info, type: glt_route_info, doc: "zero where none matched"}
      - {id: glt_word, type: u4}
  fine_stats:  # 24 bytes
    seq:
      - {id: delay_avg, type: u4}
      - {id: delay_max, type: u4}
      - {id: delay_min, type: u4}
      - {id: delay_amp, type: u4}
      - {id: total_recv, type: u4}
      - {id: total_send, type: u4}
  over_stats:  # 16 bytes
    seq:
      - {id: delay_avg, type: u4}
      - {id: delay_max, type: u4}
      - {id: delay_min, type: u4}
      - {id: count, type: u4}
  all_stats:  # 16 bytes
    seq:
      - {id: delay_avg, type: u4}
      - {id: delay_amp, type: u4}
      - {id: recv_count, type: u4}
      - {id: send_count, type: u4}
  comm_info_record:  # 984 bytes
    seq:
      - {id: used, type: u1}
      - {id: reserved_1, size: 7}
      - {id: game_id, type: u8}
      - {id: socket_type, type: u4, doc: "1 stream, 2 datagram, 0 other: not as in acc_decision_info"}
      - {id: total_sent_bytes, type: u4}
      - {id: total_sent_packets, type: u4}
      - {id: total_sent_errors, type: u4}
      - {id: first_send_error_code, type: u4}
      - {id: curr_send_error_code, type: u4}
      - {id: total_recv_bytes, type: u4}
      - {id: total_recv_packets, type: u4}
      - {id: total_recv_errors, type: u4}
      - {id: first_recv_error_code, type: u4}
      - {id: curr_recv_error_code, type: u4}
      - {id: create_tick, type: u4, doc: "GetTickCount when the socket was created"}
      - {id: life, type: u4, doc: "milliseconds since then"}
      - {id: idle, type: u4, doc: "milliseconds since the last receive"}
      - {id: game_idc, type: u4}
      - {id: game_ip, size: 260}
      - {id: game_port, type: u4, doc: "host byte order"}
      - {id: proxy_idc, type: u4}
      - {id: proxy_ip, size: 260}
      - {id: proxy_port, type: u2, doc: "host byte order"}
      - {id: guid_str, size: 65}
      - {id: reserved_671, size: 45}
      - {id: user_isp, type: u4}
      - {id: user_ip, type: u4, doc: "network byte order"}
      - {id: frontend_fine, type: fine_stats}
      - {id: backend_fine, type: fine_stats}
      - {id: frontend_over, type: over_stats}
      - {id: backend_over, type: over_stats}
      - {id: frontend_all, type: all_stats}
      - {id: backend_all, type: all_stats}
      - {id: topology_type, type: u4}
      - {id: direct_delay, type: u4}
      - {id: direct_lost, type: u4}
      - {id: section1_delay, type: u4}
      - {id: section1_lost, type: u4}
      - {id: section2_delay, type: u4}
      - {id: ended, type: u1, doc: "1: the socket's last report"}
      - {id: recovery_info, size: 120}
      - {id: reserved_981, size: 3}
  log_path_record:  # 280 bytes
    seq:
      - {id: used, type: u1}
      - {id: reserved_1, size: 7}
      - {id: game_id, type: u8}
      - {id: log_path, size: 260}
      - {id: reserved_276, size: 4}
  lsp_loaded_record:  # 280 bytes
    seq:
      - {id: used, type: u1}
      - {id: reserved_1, size: 7}
      - {id: game_id, type: u8}
      - {id: process_name, size: 260}
      - {id: is_x64, type: u1}
      - {id: reserved_277, size: 3}
  neg_ret_record:  # 184 bytes
    seq:
      - {id: used, type: u1}
      - {id: reserved_1, size: 3}
      - {id: neg_type, type: s4, doc: "0 stream, 1 datagram"}
      - {id: game_id, type: u8}
      - {id: nego_result, type: s4, doc: "see docs/reports.md"}
      - {id: last_error, type: u4}
      - {id: game_idc, type: u4}
      - {id: game_ip, size: 32}
      - {id: game_port, type: u2, doc: "host byte order"}
      - {id: reserved_62, size: 2}
      - {id: proxy_idc, type: u4}
      - {id: proxy_ip, size: 32}
      - {id: proxy_port, type: u2, doc: "host byte order"}
      - {id: reserved_102, size: 2}
      - {id: process_id, type: u4}
      - {id: reserved_108, size: 4}
      - {id: reserved_value, type: f8, doc: "always"}
      - {id: user_isp, type: u4}
      - {id: header3, type: u4}
      - {id: nego_count, type: u4, doc: "attempts so far"}
      - {id: elapsed_ms, type: u4}
      - {id: user_ip, type: u4}
      - {id: guid, size: 37}
      - {id: reserved_177, size: 7}
  real_nego_record:  # 152 bytes
    seq:
      - {id: used, type: u1}
      - {id: reserved_1, size: 7}
      - {id: game_id, type: u8}
      - {id: user_isp, type: u4}
      - {id: user_ip, type: u4, doc: "network byte order"}
      - {id: guid, size: 65}
      - {id: reserved_89, size: 3}
      - {id: proxy_id, type: u4}
      - {id: proxy_ip, size: 32}
      - {id: proxy_port, type: u4, doc: "host byte order"}
      - {id: last_node_id, type: u4}
      - {id: last_node_ip, type: u4, doc: "network byte order"}
      - {id: game_ip, type: u4, doc: "host byte order"}
      - {id: game_port, type: u4, doc: "host byte order"}
      - {id: stamp, type: u4, doc: "seconds since 1970"}
  recovery_switch_record:  # 584 bytes
    seq:
      - {id: used, type: u1}
      - {id: reserved_1, size: 7}
      - {id: game_id, type: u8}
      - {id: data_link_small_section_pack, type: s4}
      - {id: data_link_small_section_lost, type: s4}
      - {id: data_link_full_section_pack, type: s4}
      - {id: data_link_full_section_lost, type: s4}
      - {id: need_switch, type: s4}
      - {id: is_switch_succ, type: s4}
      - {id: count, type: s4}
      - {id: proxy_idc, type: s4}
      - {id: elapse_time, type: u4, doc: "milliseconds"}
      - {id: total_recv_pack, type: s4}
      - {id: total_send_pack, type: s4}
      - {id: link_type, type: s4}
      - {id: guid, size: 37}
      - {id: switch_condition, size: 120}
      - {id: acc_info, size: 120}
      - {id: client_info, size: 120}
      - {id: fe_be, size: 120}
      - {id: reserved_581, size: 3}
  decision_region:  # 121840 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: reserved_12, size: 4}
      - {id: slots, type: acc_decision_info, repeat: expr, repeat-expr: 108}
  communication_region:  # 31504 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: reserved_12, size: 4}
      - {id: slots, type: comm_info_record, repeat: expr, repeat-expr: 32}
  log_path_region:  # 4496 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: reserved_12, size: 4}
      - {id: slots, type: log_path_record, repeat: expr, repeat-expr: 16}
  loaded_region:  # 35856 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: reserved_12, size: 4}
      - {id: slots, type: lsp_loaded_record, repeat: expr, repeat-expr: 128}
  negotiation_result_region:  # 2960 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: reserved_12, size: 4}
      - {id: slots, type: neg_ret_record, repeat: expr, repeat-expr: 16}
  real_negotiation_region:  # 16432 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: reserved_12, size: 4}
      - {id: slots, type: real_nego_record, repeat: expr, repeat-expr: 108}
  recovery_switch_region:  # 9360 bytes
    seq:
      - {id: header, type: shared_mem_header}
      - {id: reserved_12, size: 4}
      - {id: slots, type: recovery_switch_record, repeat: expr, repeat-expr: 16}
