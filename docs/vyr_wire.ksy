# The messages between vyr and an acceleration node, for the Kaitai Struct compiler. wire.md says what they mean.
# Over TCP the bytes begin with one nego_request and one nego_response. Over UDP a datagram is a nego_request, a
# nego_response or, if it does not begin with their magic number, a wrapped_datagram.
meta:
  id: vyr_wire
  endian: be
doc-ref: docs/wire.md
types:
  nego_header:
    seq:
      - {id: magic, contents: [0x78, 0xdb, 0x39, 0x64]}
      - {id: pkg_len, type: u2, doc: "of the whole record, this header included"}
      - {id: version, type: u2}
      - {id: reserved, type: u2}
    instances:
      form: {value: "version == 0 or version > 3 ? 3 : version", doc: "an unknown version is read as the newest"}
  session_guid:
    seq:
      - {id: data1, type: u4}
      - {id: data2, type: u2}
      - {id: data3, type: u2}
      - {id: data4, size: 8}
  last_node_info:
    doc: All zero if there is none.
    seq:
      - {id: node_id, type: u2}
      - {id: port, type: u2}
      - {id: ip, type: u4}
      - {id: accl_token, type: u4}
  nego_request:
    seq:
      - {id: header, type: nego_header}
      - {id: flags, type: u4, doc: "0x2: this request moves a flow of datagrams that another node carries now"}
      - {id: retry, type: u1}
      - {id: uin, type: u8}
      - {id: game_id_low, type: u4}
      - {id: game_ip, type: u4}
      - {id: game_port, type: u2}
      - {id: guid, type: session_guid}
      - {id: last_node, type: last_node_info, if: header.form >= 2}
      - {id: game_idc, type: u4, if: header.form >= 2}
      - {id: game_id, type: u8, if: header.form >= 3}
  nego_response:
    seq:
      - {id: header, type: nego_header}
      - {id: result, type: u1, doc: "0: accepted"}
      - {id: accl_token, type: u4}
      - {id: client_isp, type: u4}
      - {id: client_ip, type: u4}
      - {id: accl_data_ip, type: u4}
      - {id: accl_data_port, type: u2}
      - {id: last_node, type: last_node_info, if: header.form >= 2}
  udp_accl_header:
    seq:
      - {id: version, type: u1}
      - {id: head_len, type: u1, doc: "where the payload begins, at least 20"}
      - {id: flags, type: u1, doc: "0 data, 4 end of the flow, 8 probe"}
      - {id: relay_idx, type: u1, doc: "in the answer to a probe: which relay answers"}
      - {id: seq, type: u4}
      - {id: accl_token, type: u4}
      - {id: game_ip, type: u4}
      - {id: game_port, type: u2}
      - {id: reserved, type: u1}
      - {id: lost, type: u1, doc: "percent; 101 and above: not known"}
  speed_test_payload:
    meta:
      endian: le
    seq:
      - {id: magic, contents: [0x8f, 0xbd, 0x3a, 0x25]}
      - {id: seq, type: u4}
      - {id: send_time, type: u8, doc: "milliseconds since 1970, by the client's clock"}
  wrapped_datagram:
    seq:
      - {id: header, type: udp_accl_header}
      - {id: unknown, size: header.head_len - 20, doc: "of a longer header"}
      - {id: probe, type: speed_test_payload, if: is_probe}
      - {id: payload, size-eos: true, if: not is_probe}
    instances:
      is_probe:
        value: (header.flags & 8) != 0 and _io.size == header.head_len + 16
        doc: The payload's magic number decides too; a datagram of this size without it is data.
