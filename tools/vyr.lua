-- Wireshark dissector for the protocol between vyr and an acceleration node (docs/wire.md).
--
--   wireshark -X lua_script:tools/vyr.lua capture.pcap
--   tshark -X lua_script:tools/vyr.lua -r capture.pcap -Y vyr
--
-- It needs no port numbers. A negotiation is recognised by its magic number; the request tells where the
-- node is, and the answer where its datagrams go. So a capture that begins after a flow's negotiation shows
-- that flow as plain UDP: choose "Decode As" there. Over TCP only the negotiation is vyr's; the game's bytes
-- follow as they are.

local vyr = Proto("vyr", "vyr acceleration node")

local NEGO_MAGIC, PROBE_MAGIC = 0x78DB3964, 0x253ABD8F
local HEADER, ACCL_HEADER, PROBE = 10, 20, 16
local RESPONSE, RESPONSE_LONGEST = 29, 41
local REQUEST = { 49, 65, 73 } -- by version
local FLAG_END, FLAG_PROBE = 4, 8
local NEWEST = 3

local results = { [0] = "accepted" }
local kinds = { [0] = "data", [FLAG_END] = "end of the flow", [FLAG_PROBE] = "probe" }
local relays = { [0] = "the only one, or not answered", [1] = "first of two", [2] = "second of two" }
local losses = {
  [101] = "not known: too few datagrams",
  [102] = "not known: nothing has arrived",
  [103] = "not known: never computed",
  [201] = "not known: the numbers ran backwards",
}

local field = {
  to_node = ProtoField.bool("vyr.to_node", "From client to node"),
  magic = ProtoField.uint32("vyr.magic", "Magic", base.HEX),
  pkg_len = ProtoField.uint16("vyr.pkg_len", "Length"),
  version = ProtoField.uint16("vyr.version", "Version"),
  reserved = ProtoField.uint16("vyr.reserved", "Reserved"),

  flags = ProtoField.uint32("vyr.request.flags", "Flags", base.HEX),
  moves = ProtoField.bool("vyr.request.moves_flow", "Moves a flow", 32, nil, 0x2),
  retry = ProtoField.uint8("vyr.request.retry", "Retry"),
  uin = ProtoField.uint64("vyr.request.uin", "User"),
  game_id_low = ProtoField.uint32("vyr.request.game_id_low", "Game, low half"),
  game_ip = ProtoField.ipv4("vyr.game_ip", "Game server"),
  game_port = ProtoField.uint16("vyr.game_port", "Game server's port"),
  guid = ProtoField.guid("vyr.request.guid", "Flow"),
  game_idc = ProtoField.uint32("vyr.request.game_idc", "Data centre"),
  game_id = ProtoField.uint64("vyr.request.game_id", "Game"),

  result = ProtoField.uint8("vyr.response.result", "Result", base.DEC, results),
  token = ProtoField.uint32("vyr.token", "Token", base.HEX),
  client_isp = ProtoField.uint32("vyr.response.client_isp", "Client's provider", base.HEX),
  client_ip = ProtoField.ipv4("vyr.response.client_ip", "Client as the node sees it"),
  data_ip = ProtoField.ipv4("vyr.response.data_ip", "Datagrams go to"),
  data_port = ProtoField.uint16("vyr.response.data_port", "Port for datagrams"),
  request_frame = ProtoField.framenum("vyr.response.request", "Request", base.NONE, frametype.REQUEST),

  node_id = ProtoField.uint16("vyr.last_node.id", "Node"),
  node_port = ProtoField.uint16("vyr.last_node.port", "Port"),
  node_ip = ProtoField.ipv4("vyr.last_node.ip", "Address"),
  node_token = ProtoField.uint32("vyr.last_node.token", "Token", base.HEX),

  accl_version = ProtoField.uint8("vyr.udp.version", "Version"),
  head_len = ProtoField.uint8("vyr.udp.head_len", "Header's length"),
  accl_flags = ProtoField.uint8("vyr.udp.flags", "Flags", base.HEX, kinds),
  relay_idx = ProtoField.uint8("vyr.udp.relay_idx", "Relay", base.DEC, relays),
  seq = ProtoField.uint32("vyr.udp.seq", "Number"),
  lost = ProtoField.uint8("vyr.udp.lost", "Loss seen by the sender, percent", base.DEC, losses),
  payload_len = ProtoField.uint32("vyr.udp.payload_len", "Payload's length"),

  probe_magic = ProtoField.uint32("vyr.probe.magic", "Magic", base.HEX),
  probe_seq = ProtoField.uint32("vyr.probe.seq", "Number"),
  send_time = ProtoField.absolute_time("vyr.probe.send_time", "Sent", base.UTC),
  send_time_ms = ProtoField.uint64("vyr.probe.send_time_ms", "Sent, milliseconds since 1970"),
}
vyr.fields = field

local notes = {
  short = ProtoExpert.new("vyr.short", "Shorter than its form", expert.group.MALFORMED, expert.severity.ERROR),
  length = ProtoExpert.new("vyr.bad_length", "Length of no known form", expert.group.MALFORMED, expert.severity.WARN),
  refused = ProtoExpert.new("vyr.refused", "The node refuses", expert.group.RESPONSE_CODE, expert.severity.NOTE),
}
vyr.experts = notes

-- Where nodes take datagrams, and the frames of the latest requests. Both grow while a capture is read in order.
local node_ends, requests = {}, {}
function vyr.init() node_ends, requests = {}, {} end

local function place(address, port) return tostring(address) .. ":" .. port end

-- A port that another protocol has by default would be shown as that one's.
local udp_ports = DissectorTable.get("udp.port")
local function learn_node_end(address, port, pinfo)
  node_ends[place(address, port)] = true
  if pinfo.port_type == 3 and port ~= 0 then udp_ports:add(port, vyr) end -- 3: UDP
end

local function goes_to_node(pinfo)
  if node_ends[place(pinfo.dst, pinfo.dst_port)] then return true end
  return not node_ends[place(pinfo.src, pinfo.src_port)]
end

local function has_magic(tvb) return tvb:len() >= HEADER and tvb(0, 4):uint() == NEGO_MAGIC end

local function add_last_node(tvb, at, tree)
  local node = tree:add(vyr, tvb(at, 12), "Last node")
  node:add(field.node_id, tvb(at, 2))
  node:add(field.node_port, tvb(at + 2, 2))
  node:add(field.node_ip, tvb(at + 4, 4))
  node:add(field.node_token, tvb(at + 8, 4))
end

local function add_request(tvb, version, pinfo, tree)
  tree:add(field.flags, tvb(10, 4)):add(field.moves, tvb(10, 4))
  tree:add(field.retry, tvb(14, 1))
  tree:add(field.uin, tvb(15, 8))
  tree:add(field.game_id_low, tvb(23, 4))
  tree:add(field.game_ip, tvb(27, 4))
  tree:add(field.game_port, tvb(31, 2))
  tree:add(field.guid, tvb(33, 16))
  if version >= 2 then
    add_last_node(tvb, 49, tree)
    tree:add(field.game_idc, tvb(61, 4))
  end
  if version >= 3 then tree:add(field.game_id, tvb(65, 8)) end
  learn_node_end(pinfo.dst, pinfo.dst_port, pinfo)
  requests[place(pinfo.src, pinfo.src_port)] = pinfo.number
  local what = bit.band(tvb(10, 4):uint(), 2) ~= 0 and "Request to move a flow" or "Request"
  pinfo.cols.info = string.format("%s to %s:%d, retry %d", what, tostring(tvb(27, 4):ipv4()),
    tvb(31, 2):uint(), tvb(14, 1):uint())
end

local function add_response(tvb, version, pinfo, tree)
  local result = tvb(10, 1):uint()
  local item = tree:add(field.result, tvb(10, 1))
  tree:add(field.token, tvb(11, 4))
  tree:add(field.client_isp, tvb(15, 4))
  tree:add(field.client_ip, tvb(19, 4))
  tree:add(field.data_ip, tvb(23, 4))
  tree:add(field.data_port, tvb(27, 2))
  if version >= 2 and tvb:len() >= RESPONSE_LONGEST then add_last_node(tvb, RESPONSE, tree) end
  local request = requests[place(pinfo.dst, pinfo.dst_port)]
  if request then tree:add(field.request_frame, request):set_generated() end
  if result == 0 then
    learn_node_end(tvb(23, 4):ipv4(), tvb(27, 2):uint(), pinfo)
    pinfo.cols.info = string.format("Accepted, token 0x%08x", tvb(11, 4):uint())
  else
    item:add_proto_expert_info(notes.refused)
    pinfo.cols.info = "Refused with " .. result
  end
end

-- The bytes of a request or a response; returns how many it took.
local function dissect_negotiation(tvb, pinfo, tree)
  local length, version = tvb(4, 2):uint(), tvb(6, 2):uint()
  local form = (version == 0 or version > NEWEST) and NEWEST or version
  local is_request = length > RESPONSE_LONGEST
  local needed = is_request and REQUEST[form] or RESPONSE
  pinfo.cols.protocol = "vyr"
  local root = tree:add(vyr, tvb(0, math.min(math.max(length, HEADER), tvb:len())))
  root:append_text(is_request and ", request" or ", response")
  root:add(field.to_node, is_request):set_generated()
  root:add(field.magic, tvb(0, 4))
  local item = root:add(field.pkg_len, tvb(4, 2))
  root:add(field.version, tvb(6, 2))
  root:add(field.reserved, tvb(8, 2))
  if is_request and length ~= needed then item:add_proto_expert_info(notes.length) end
  if tvb:len() < needed then
    item:add_proto_expert_info(notes.short)
    pinfo.cols.info = "Incomplete negotiation"
    return tvb:len()
  end
  local add = is_request and add_request or add_response
  add(tvb, form, pinfo, root)
  return math.min(math.max(length, needed), tvb:len())
end

local function is_probe(tvb, head_len)
  return bit.band(tvb(2, 1):uint(), FLAG_PROBE) ~= 0 and tvb:len() == head_len + PROBE
    and tvb(head_len, 4):le_uint() == PROBE_MAGIC
end

local function add_probe(tvb, head_len, tree)
  local payload = tree:add(vyr, tvb(head_len, PROBE), "Probe")
  local ms = tvb(head_len + 8, 8):le_uint64()
  payload:add_le(field.probe_magic, tvb(head_len, 4))
  payload:add_le(field.probe_seq, tvb(head_len + 4, 4))
  payload:add_le(field.send_time_ms, tvb(head_len + 8, 8))
  local time = NSTime.new((ms / 1000):tonumber(), (ms % 1000):tonumber() * 1000000)
  payload:add(field.send_time, tvb(head_len + 8, 8), time)
end

-- What the receiver takes the datagram for. A node looks at the end flag, the client at bit 8 alone.
local function kind_of(tvb, head_len, to_node)
  if is_probe(tvb, head_len) then return to_node and "Probe" or "Answer to probe" end
  if to_node and bit.band(tvb(2, 1):uint(), FLAG_END) ~= 0 then return "End of the flow" end
  return "Data"
end

local function dissect_datagram(tvb, pinfo, tree)
  local head_len = tvb(1, 1):uint()
  local to_node = goes_to_node(pinfo)
  local kind = kind_of(tvb, head_len, to_node)
  local payload = tvb:len() - head_len
  pinfo.cols.protocol = "vyr"
  pinfo.cols.info = string.format("%s %d, %s %s:%d, %d bytes", kind, tvb(4, 4):uint(),
    to_node and "to" or "from", tostring(tvb(12, 4):ipv4()), tvb(16, 2):uint(), payload)
  local root = tree:add(vyr, tvb(0, head_len), "vyr, " .. kind:lower())
  root:add(field.to_node, to_node):set_generated()
  root:add(field.accl_version, tvb(0, 1))
  root:add(field.head_len, tvb(1, 1))
  root:add(field.accl_flags, tvb(2, 1))
  root:add(field.relay_idx, tvb(3, 1))
  root:add(field.seq, tvb(4, 4))
  root:add(field.token, tvb(8, 4))
  root:add(field.game_ip, tvb(12, 4))
  root:add(field.game_port, tvb(16, 2))
  root:add(field.lost, tvb(19, 1))
  root:add(field.payload_len, payload):set_generated()
  if kind == "Probe" or kind == "Answer to probe" then
    add_probe(tvb, head_len, root)
  elseif payload > 0 then
    Dissector.get("data"):call(tvb(head_len):tvb(), pinfo, tree)
  end
  return tvb:len()
end

local function looks_wrapped(tvb)
  if tvb:len() < ACCL_HEADER then return false end
  local head_len = tvb(1, 1):uint()
  return head_len >= ACCL_HEADER and head_len <= tvb:len()
end

local function known_end(pinfo)
  return node_ends[place(pinfo.dst, pinfo.dst_port)] or node_ends[place(pinfo.src, pinfo.src_port)]
end

-- Called for the ports of known nodes and by "Decode As".
function vyr.dissector(tvb, pinfo, tree)
  if has_magic(tvb) then return dissect_negotiation(tvb, pinfo, tree) end
  if looks_wrapped(tvb) then return dissect_datagram(tvb, pinfo, tree) end
  return 0
end

vyr:register_heuristic("udp", function(tvb, pinfo, tree)
  if not has_magic(tvb) and not (known_end(pinfo) and looks_wrapped(tvb)) then return false end
  return vyr.dissector(tvb, pinfo, tree) > 0
end)

vyr:register_heuristic("tcp", function(tvb, pinfo, tree)
  if not has_magic(tvb) then return false end
  local length = tvb(4, 2):uint()
  if length < HEADER or length > REQUEST[NEWEST] then return false end
  local taken = dissect_negotiation(tvb, pinfo, tree)
  -- The game's first bytes may come with the answer.
  if taken < tvb:len() then Dissector.get("data"):call(tvb(taken):tvb(), pinfo, tree) end
  return true
end)

udp_ports:add_for_decode_as(vyr)
