#!/usr/bin/env python3
"""Writes the seeds of the targets whose inputs are scripts: fuzz/make_seeds.py [--list]

Each seed reaches a state that chance alone would take long to find: a node that has accepted, a
stream in two pieces, a flow on its way to another node. Run it after changing a target's steps;
inputs that the fuzzer has found stay.
"""
import argparse
import pathlib
import re
import struct

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"


def word(number):
    return struct.pack("<H", number)


def patch(offset, data):
    return struct.pack("<HBB", offset & 0xFFFF, offset >> 16, len(data)) + data


def tcp_session():
    def turns(count=4): return bytes([0, count])
    def update(units): return bytes([1, units])
    def raw(data, far=0): return bytes([2, far, len(data)]) + data
    def answers(version=3, result=0, isp=0, cut=41, far=0, patches=()):
        both = b"".join(bytes(one) for one in patches)
        return bytes([3, far, version, result, isp, len(patches)]) + both + bytes([cut])
    def far_sends(amount, far=0): return bytes([4, far]) + word(amount)
    def game_sends(amount): return bytes([5]) + word(amount)
    def far_ends(how, far=0): return bytes([6, far, how])
    def game_ends(how): return bytes([7, how])
    game_stops, far_stops = bytes([8]), bytes([9, 0])
    def begin(mended=0, mode=0): return word(mended) + bytes([mode])
    carried = turns() + answers() + turns()
    both = game_sends(6400) + far_sends(6400) + turns()
    yield "carried", begin() + carried + both
    yield "logged", begin(mode=1) + carried + both
    yield "forced", begin(mode=2) + turns() + answers(isp=0xF1) + both
    yield "mended", begin(0x7FFF) + carried + both
    yield "half_close", begin(0x1) + carried + both + game_ends(0) + far_sends(6400) + far_ends(0)
    yield "reset", begin(0x4) + carried + both + far_ends(1) + turns()
    yield "reset_by_game", begin(0x4) + carried + both + game_ends(1) + turns()
    yield "two_pieces", begin() + game_sends(640) + turns() + answers(cut=7) + turns() + both
    yield "head_alone", begin(0x2) + game_sends(640) + turns() + answers(cut=10) + turns() + both
    yield "refused_then_second", begin() + turns() + answers(result=255) + carried + both
    yield "both_refuse", begin() + turns() + answers(result=255) + turns() + answers(result=255) + turns() + both
    yield "isp_not_served", begin() + turns() + answers(isp=0xF1) + turns() + both
    yield "silent_nodes", begin() + turns() + update(200) * 2 + turns() + update(200) * 2 + turns() + both
    yield "fallback", begin(0x22) + turns() + update(40) * 3 + turns() + answers(far=1) + turns() + both
    yield "no_node", begin(0x2, 12) + turns() + both
    yield "no_server", begin(0, 28) + turns() + both
    yield "full", begin(0x4400) + carried + far_stops + game_sends(40001) * 12 + far_stops + turns(15)
    yield "full_to_game", begin() + carried + game_stops + far_sends(40001) * 12 + game_stops + turns(15)
    yield "answer_and_payload", begin() + turns() + raw(bytes.fromhex("78db3964002900030000") + bytes(1) +
        bytes.fromhex("00000001000000017f0000017f000001138b") + bytes(12) + b"payload at once")
    yield "long_claim", begin() + turns() + answers(patches=[(4, 1)])
    yield "short_claim", begin() + turns() + answers(patches=[(5, 9)])
    yield "magic", begin() + turns() + answers(patches=[(0, 0)])
    yield "stray_events", begin() + b"".join(bytes([10, n]) for n in range(8)) + carried + bytes([10, 1, 10, 4]) + both


def udp_flow():
    def passes(units=8): return bytes([0, units])
    def waits(units): return bytes([1, units])
    def game(to=0, amount=100): return bytes([2, to]) + word(amount)
    def answers(node=0, version=3, result=0, isp=0, patches=(), cut=0):
        both = b"".join(bytes(one) for one in patches)
        return bytes([3, node, version, result, isp, len(patches)]) + both + bytes([cut])
    def raw_answer(data, node=0): return bytes([4, node, len(data)]) + data
    def data(node=0, seq=1, flags=None, length=0, longer=0):
        flag = bytes([1]) if flags is None else bytes([0, flags])
        return bytes([5, node]) + word(seq) + flag + bytes([0, 0, 101, 20, longer, length, 1])
    def raw(bytes_, node=0): return bytes([6, node, len(bytes_)]) + bytes_
    stranger, fires = bytes([7]) + word(5) + bytes([0]), bytes([9])
    def probes(node=0, idx=0, late=1): return bytes([8, node, idx, late])
    def asks(to): return bytes([10, to])
    closes = bytes([11])
    def begin(mended=0, mode=0): return word(mended) + bytes([mode])
    carried = game() + answers() + passes()
    healthy = (passes() + probes() + probes(1) + game() + data()) * 6
    switching = fires + passes() + answers(1) + (passes() + probes() + probes(1)) * 10
    yield "carried", begin() + carried + game() + data() + stranger + data(seq=2)
    yield "logged", begin(mode=1) + carried + game() + data()
    yield "waiting", begin() + game() * 5 + game(1) + answers() + passes() + data()
    yield "refused_then_second", begin() + game() + answers(result=255) + answers(1) + game() + data(1)
    yield "direct", begin() + game() + answers(result=255) + answers(1, result=255) + game() + game(1) + stranger
    yield "silent", begin() + game() + waits(130) * 2 + waits(130) * 2 + game() + stranger
    yield "late_answer", begin(0x20) + game() + waits(30) * 3 + answers(0) + game() + data() + answers(1)
    yield "unlisted", begin() + game(3) + game(0) + answers() + game(3)
    yield "measured", begin() + carried + healthy
    yield "switched", begin() + carried + healthy + switching + data(1) + game() + data(1, 2) + data(0, 3)
    yield "switched_anew", begin(0x300) + carried + healthy + switching + data(1) + game() + data(0, 3) + waits(60)
    yield "switch_refused", begin() + carried + healthy + fires + passes() + answers(1, result=255) + passes() * 3
    yield "peer_ports", begin(0x1000) + carried + asks(1) + game(1) + data() + asks(3) + game(3)
    yield "all_mended", begin(0x3FFF) + carried + asks(1) + game(1) + healthy + switching + data(1)
    yield "header_past_end", begin() + carried + raw(bytes([1, 40]) + bytes(18))
    yield "long_header", begin() + carried + data(length=1, longer=9)
    yield "header_past_end_by_one", begin() + carried + data(length=4) + data(length=3) + data(length=2)
    yield "empty_payload", begin() + carried + raw(bytes([1, 20]) + bytes(18))
    yield "short", begin() + carried + raw(bytes([1, 20]))
    yield "short_answer", begin() + game() + raw_answer(bytes.fromhex("78db39640029")) + answers(1)
    yield "cut_answer", begin() + game() + answers(cut=63) + answers(1)
    yield "closes_early", begin(0x20) + game() + closes + answers() + asks(0) + game()
    yield "forced", begin(mode=2) + game() + answers(isp=0xF1) + game() + data()


def control_port():
    def opens(token, which=3, event=0): return bytes([0, token, which]) + struct.pack("<III", event, 8192, 8192)
    def closes(token): return bytes([1, token])
    def changed_close(how): return bytes([2, 1]) + how
    def waits(units): return bytes([4, units])
    yield "one", bytes([0]) + opens(1) + waits(9) + closes(1)
    yield "logged", bytes([1]) + opens(1) + closes(1)
    yield "several", bytes([0]) + b"".join(opens(n) for n in range(6)) + waits(90) + closes(3) + opens(3)
    yield "twice", bytes([0]) + opens(1) + opens(1) + closes(1) + closes(1)
    yield "no_event", bytes([0]) + opens(1, 0) + opens(2, 1) + opens(3, 2, 0x44)
    yield "longer", bytes([0]) + opens(1) + changed_close(bytes([1, 0, 1, 7]))
    yield "shorter", bytes([0]) + opens(1) + changed_close(bytes([1, 1, 12]))
    yield "magic", bytes([0]) + opens(1) + changed_close(bytes([0, 0, 7]))
    yield "from_elsewhere", bytes([0]) + opens(1) + bytes([3, 0, 13]) + bytes.fromhex("53023fc10201000000") + bytes(4)
    yield "empty", bytes([0]) + bytes([3, 1, 0])


def ping():
    def add(s): return bytes([s, 0])
    def remove(s): return bytes([s, 1])
    def sends(s, data): return bytes([s, 2]) + word(len(data)) + data
    def raw(s, data): return bytes([s, 3]) + word(len(data)) + data
    def reads(s, room): return bytes([s, 4]) + word(room)
    def waits(ms): return bytes([0, 5, ms])
    message = bytes([8, 0, 0, 0, 0, 7, 0, 1]) + b"payload of a ping"
    yield "one", add(1) + sends(1, message) + reads(1, 300) + waits(44) + reads(1, 300) + waits(1) + reads(1, 300)
    yield "cut", add(1) + sends(1, message) + waits(50) + reads(1, 27) + reads(1, 28)
    yield "shortest", add(1) + sends(1, message[:8]) + waits(50) + reads(1, 300)
    yield "too_short", add(1) + sends(1, message[:7])
    yield "longest", add(1) + sends(1, message + bytes(256 - len(message))) + waits(50) + reads(1, 300)
    yield "too_long", add(1) + sends(1, message + bytes(257 - len(message)))
    yield "odd", add(2) + sends(2, message[:11]) + waits(50) + reads(2, 100)
    yield "no_request", add(1) + raw(1, message)
    yield "unknown_socket", sends(3, message) + reads(3, 100)
    yield "order", add(0) + add(1) + sends(0, message) + waits(9) + sends(0, message[:9]) + sends(1, message) + \
        waits(50) + reads(0, 60) + reads(0, 60) + reads(1, 60) + remove(1)


def regions():
    # In the order of both targets' Regions: mending, restriction, route, iptable, blacklist, spur, launch test, and
    # the seven channels.
    def at(region, offset, data):
        return bytes([region]) + patch(offset, data)
    high = b"\xff" * 4
    yield "sample", bytes([0])
    yield "dumped", bytes([2])
    yield "written_meanwhile", bytes([1]) + at(2, 4 + 12, high) + at(6, 12, high)
    for number in range(14):
        yield f"header_{number}", bytes([number * 4]) + at(number, 4 if number == 2 else 0, b"\x01")
    yield "selector", bytes([0]) + at(2, 0, high)
    yield "route_count", bytes([0]) + at(2, 16, high)
    yield "ip_count", bytes([0]) + at(3, 16, high) + at(3, 12, high)
    yield "blacklist_count", bytes([0]) + at(4, 16, high) + at(4, 12, high)
    yield "spur_count", bytes([0]) + at(5, 16, high) + at(5, 12, high)
    yield "launch_count", bytes([0]) + at(6, 16, high) + at(6, 12, high)
    yield "endless_path", bytes([0]) + at(1, 40, b"A" * 255)
    yield "counts_of_game", bytes([0]) + at(1, 16 + 20, high) + at(1, 16 + 2624, high)
    yield "full_channel", bytes([0]) + b"".join(at(7, 16 + 280 * n, b"\x02") for n in range(16))
    for number in range(7):
        yield f"report_{number}", bytes([number * 4]) + at(7 + number, 16, b"\x01" + b"\xc3\x28" * 60)
    yield "mended", bytes([0]) + at(0, 12, b"\xff" * 40)
    yield "dumped_high", bytes([2]) + at(1, 16, b"\xff" * 255) + at(2, 4, b"\xff" * 255)


def files():
    developer = b"[LSP]\r\nTCP=false\r\nUDP = False\r\n"
    test = (b"[TestAccGame]\nprocess_count=2\nproc1=game.exe\nproc2=other.exe\nproxy_ip=198.51.100.20\n"
            b"proxy_port=9000\nnet_mode=24\nlog_level=0\nmend=half-close, reset\n; a remark\nunknown=1\n")
    yield "route", bytes([0, 0])
    yield "route_longer", bytes([0, 32])
    yield "route_shorter", bytes([0, 224])
    yield "route_counts", bytes([0, 0]) + patch(0, b"\xff" * 4) + patch(120 + 4, b"\xff" * 200)
    yield "developer", bytes([1]) + developer
    yield "developer_wide", bytes([1]) + b"\xff\xfe" + developer.decode().encode("utf-16-le")
    yield "developer_other", bytes([1]) + b"[lsp]\ntcp='false'\nudp=falsehood\n[LSP]\nTCP=false"
    yield "developer_value", bytes([1]) + b"[LSP]\nTCP=" + b"false" * 60
    yield "test", bytes([2]) + test
    yield "test_wide", bytes([2]) + b"\xff\xfe" + test.decode().encode("utf-16-le")
    yield "test_all_mended", bytes([2]) + test.replace(b"half-close, reset", b"all")
    yield "test_port", bytes([2]) + test.replace(b"9000", b"0x1ffff")
    yield "test_long_ip", bytes([2]) + test.replace(b"198", b"1" * 200)
    yield "list", bytes([3]) + b"half-close, reset ,names"
    yield "list_all", bytes([3]) + b"all,fallback"
    yield "list_unknown", bytes([3]) + b"reset,,x"


def log():
    def line(level, short, tag, text): return bytes([0, level, 0 if short else 1, len(tag)]) + tag + text
    yield "line", line(4, True, b"", b"a text")
    yield "gbk", line(4, True, b"", b"\xa3\xba" + b"name")
    yield "tag", line(5, False, b"tag", b"a text")
    yield "long_tag", line(5, False, b"t" * 70, b"a text")
    yield "percent", line(5, False, b"%n%s", b"%s%n%d")
    yield "cut", line(0, True, b"", b"0123456789abcde" * 137)
    yield "longest", line(0, False, b"", b"0123456789abcde")
    yield "file", bytes([1]) + word(60000) + b"".join(bytes([4, 1, 9]) + b"some line" for _ in range(40))
    yield "file_at_limit", bytes([1]) + word(1500) + (bytes([5, 0]) + word(700)) * 8
    yield "file_levels", bytes([1]) + word(9000) + b"".join(bytes([n, 1, 4]) + b"line" for n in range(8)) * 3


def ioctl():
    for which, name in enumerate(("connect_ex", "accept_ex", "transmit_file", "send_msg")):
        yield name, bytes([0, which, 8]) + b"function" * 8 + bytes([40, 8])
    yield "nearly_connect_ex", bytes([0, 4, 15, 1]) + bytes(64) + bytes([40, 8])
    yield "cut_query", bytes([0, 192, 15]) + bytes(64) + bytes([40, 8])
    yield "failed", bytes([16, 0]) + word(10045) + bytes(64) + bytes([40, 8])
    yield "no_room", bytes([0, 0]) + bytes(64) + bytes([0, 0])
    yield "no_output", bytes([32, 0]) + bytes(64)
    yield "datagram", bytes([5, 0]) + bytes(64) + bytes([40, 8])
    yield "unknown_socket", bytes([7, 0]) + bytes(64) + bytes([40, 8])
    yield "other_code", bytes([8]) + struct.pack("<I", 0x4004667F) + bytes([0]) + bytes(64) + bytes([40, 8])
    yield "no_error", bytes([64, 0]) + bytes(64) + bytes([40, 8])


def client_toml():
    game = ("[[game]]\ngame_id = 10001\ngame_paths = ['C:\\games\\game.exe']\nnet_mode = ['TCP']\n"
            "log_level = 5\nlog_path = 'C:\\log\\'\n")
    node = "[[proxy]]\nproxy_idc = 1\nproxy_addr = '198.51.100.20'\nproxy_port = 9000\nsurport_isps = 1\n"
    texts = {"game": game, "empty": "", "no_games": "game = []", "node": game + node,
             "twice": game + "game_id = 3\n", "syntax": game + "x = [\n", "hex": game + "zone_id = 0x12\n",
             "huge": game + "zone_id = '18446744073709551615'\n", "beyond": game + "log_level = 99999999999999999999\n",
             "unknown": game + "net_modes = 3\n", "type": game + "net_mode = 'TCP'\n",
             "nul": game + "uin = '\\u0000'\n",
             "bom": "\ufeff" + game, "deep": "a = " + "[" * 300}
    for name, text in texts.items():
        yield name, text.encode()
    yield "utf16", game.encode("utf-16")
    yield "latin1", (game + "uin = 'ä'\n").encode("latin-1")


TARGETS = {"tcp_session_fuzz": tcp_session, "udp_flow_fuzz": udp_flow, "control_port_fuzz": control_port,
           "ping_fuzz": ping, "regions_fuzz": regions, "client_regions_fuzz": regions,
           "files_fuzz": files, "log_fuzz": log, "ioctl_fuzz": ioctl, "client_toml_fuzz": client_toml}


def write_words():
    """The keys and quoted texts of the sample configuration, for libFuzzer to put together anew."""
    text = (CORPUS / "client_toml_fuzz" / "sample").read_text()
    words = sorted(set(re.findall(r"\w+ = |'[^'\n]{1,40}'|\[\[?[\w.]+\]\]?", text)))
    lines = ['"' + word.replace("\\", "\\\\").replace('"', '\\"') + '"' for word in words]
    (CORPUS.parent / "client_toml_fuzz.dict").write_text("\n".join(lines) + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--list", action="store_true", help="print the seeds' names and sizes instead")
    only_list = parser.parse_args().list
    for target, seeds in TARGETS.items():
        folder = CORPUS / target
        folder.mkdir(parents=True, exist_ok=True)
        for name, data in seeds():
            if only_list:
                print(f"{target}/{name}  {len(data)} bytes")
            else:
                (folder / name).write_bytes(data)
    if not only_list:
        write_words()


if __name__ == "__main__":
    main()
