// The tables of the sample, as a person writes them. The addresses are those of the private test
// network: .10 to .19 are game servers, .20 and up are nodes. Each destination is decided for a
// different reason; docs/tables.md goes through them.
#pragma once

namespace client {

inline constexpr char kSampleNodes[] = R"([[node]]
proxy_name = 'node one'
proxy_addr = '198.51.100.20'
proxy_port = 9000
proxy_idc = 1
section1_delay = 10
surport_isps = 0xffffffff
flag = 6

[[node]]
proxy_name = 'node two'
proxy_addr = '198.51.100.21'
proxy_port = 9000
proxy_idc = 2
section1_delay = 12
surport_isps = 0xffffffff
flag = 6

[[node]]
proxy_name = 'node three'
proxy_addr = '198.51.100.22'
proxy_port = 9000
proxy_idc = 3
section1_delay = 15
surport_isps = 0xffffffff
flag = 6
)";

inline constexpr char kSampleIdcs[] = R"([[idc]]
game_idc = 1001
name = 'east'
vip_level = 0
addresses = ['198.51.100.10', '198.51.100.11']

[[idc]]
game_idc = 1002
name = 'near'
addresses = ['198.51.100.12']

[[idc]]
game_idc = 1003
name = 'own provider'
addresses = ['198.51.100.13']

[[idc]]
game_idc = 1004
name = 'far'
addresses = ['198.51.100.14']

[[idc]]
game_idc = 1005
name = 'without a route'
addresses = ['198.51.100.15']

[[idc]]
game_idc = 1006
name = 'always'
addresses = ['198.51.100.16']

[[idc]]
game_idc = 1007
name = 'never'
addresses = ['198.51.100.17']

[[idc]]
game_idc = 1301
name = 'east, level 3'
vip_level = 3
addresses = ['198.51.100.18']
)";

inline constexpr char kSampleRoutes[] = R"([[route]]
game_idc = 'east'
entry_name = 'east'
direct_delay = 60
ref_default = { node = 'node one', decision = 'DECISION_ACCE', section2_delay = 10, last_node = 'node one' }
top_refs = [
  { node = 'node one', section2_delay = 10, last_node = 'node one' },
  { node = 'node two', section2_delay = 14, last_node = 'node one' },
  { node = 'node three', section2_delay = 20, last_node = 'node one' },
]
switch_groups = [
  { last_node = 'node one', candidates = [
    { node = 'node three', section2_delay = 20, last_node = 'node one' },
    { node = 'node two', section2_delay = 14, last_node = 'node one' },
  ] },
]

[[route]]
game_idc = 'near'
entry_name = 'near'
direct_delay = 8
ref_default = { node = 'node one', decision = 'DECISION_DIRECT', section2_delay = 10, last_node = 'node one' }

[[route]]
game_idc = 'own provider'
entry_name = 'own provider'
direct_delay = 15
ref_default = { node = 'node one', decision = 'DECISION_NOT_ACCE_SAME_ISP', section2_delay = 10 }

[[route]]
game_idc = 'far'
entry_name = 'far'
direct_delay = 180
ref_default = { node = 'node two', decision = 'DECISION_OVER_MAX_DELAY', section2_delay = 200 }

[[route]]
game_idc = 'always'
entry_name = 'always'
direct_delay = 40
ref_default = { node = 'node two', decision = 'DECISION_FORCE_ACCE_AUTO', section2_delay = 45, last_node = 'node two' }

[[route]]
game_idc = 'never'
entry_name = 'never'
direct_delay = 40
ref_default = { node = 'node two', decision = 'DECISION_NOT_ACCE', section2_delay = 50 }

[[route]]
game_idc = 'east, level 3'
entry_name = 'east, level 3'
direct_delay = 60
ref_default = { node = 'node three', section2_delay = 5, last_node = 'node three' }
)";

inline constexpr char kSampleRoutesMode2[] = R"([[route_mode2]]
game_idc = 'east'
entry_name = 'east, as the user chose'
direct_delay = 60
ref_default = { node = 'node two', decision = 'DECISION_ACCE', section2_delay = 14, last_node = 'node one' }
ref_both_modes = { node = 'node one', decision = 'DECISION_ACCE', section2_delay = 10, last_node = 'node one' }
)";

inline constexpr char kSampleSpurs[] = R"([[spur]]
game_idc = 'east'
addresses = ['198.51.100.19']
)";

inline constexpr char kSampleBlacklist[] = R"([[blacklist]]
type = 'TCP'
ip = '198.51.100.11'
port = 443

[[blacklist]]
type = 'UDP'
port = 53
)";

inline constexpr char kSampleLaunchTest[] = R"([[launch_test]]
game_idc = 'east'
glt_head = '01000000'
proxy = { node = 'node two', section2_delay = 14, last_node = 'node one' }
)";

}  // namespace client
