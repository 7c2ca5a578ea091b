"""A made-up run, as `vyr_client watch --json` prints one: direct, relayed, failed and moved flows."""
import json
import math

START = 1_790_000_000_000  # milliseconds since 1970
FINE = ("delay_avg", "delay_max", "delay_min", "delay_amp", "total_recv", "total_send")


def guid(number):
    return f"{number:08x}-1111-2222-3333-444444444444"


def decision(time, number, port, reason, kind=1, node=None):
    proxy = {"proxy_addr": "198.51.100.%d" % (19 + node), "proxy_port": 9000, "proxy_idc": node,
             "proxy_name": f"node-{node}", "section1_delay": 12, "section2_delay": 31} if node else {}
    return {"event": "decision", "time": START + time, "slot": 0, "used": 1, "guid": guid(number),
            "acc_reason": reason, "game_id": 77, "socket_type": kind, "game_ip": "198.51.100.10",
            "game_port": port, "game_idc": 1001, "direct_delay": 80, "direct_lost": 2,
            "selected_proxy": proxy}


def negotiated(time, number, port, node):
    return {"event": "real_negotiation", "time": START + time, "slot": 0, "used": 1, "game_id": 77,
            "guid": guid(number), "proxy_id": node, "proxy_ip": "198.51.100.%d" % (19 + node),
            "proxy_port": 9000, "game_ip": "198.51.100.10", "game_port": port,
            "user_ip": "198.51.100.1", "user_isp": 1, "stamp": (START + time) // 1000}


def failed(time, number, port, node, result, kind=1):
    return {"event": "negotiation_result", "time": START + time, "slot": 0, "used": 1,
            "neg_type": kind, "game_id": 77, "nego_result": result, "game_ip": "198.51.100.10",
            "game_port": port, "proxy_idc": node, "proxy_ip": "198.51.100.%d" % (19 + node),
            "proxy_port": 9000, "nego_count": 1, "elapsed_ms": 5003, "guid": guid(number)}


def traffic(time, number, port, node, life, front, back=None, ended=0, kind=2):
    sent = life * 3 + int(400 * math.sin(life / 7000))
    record = {"event": "communication", "time": START + time, "slot": 0, "used": 1, "game_id": 77,
              "socket_type": kind, "total_sent_bytes": sent, "total_sent_packets": life // 33,
              "total_recv_bytes": sent * 2, "total_recv_packets": life // 33 - 1, "life": life,
              "game_ip": "198.51.100.10", "game_port": port, "proxy_idc": node,
              "proxy_ip": "198.51.100.%d" % (19 + node), "proxy_port": 9000,
              "guid_str": guid(number), "ended": ended,
              "topology_type": 2 if back else 1 if front else 0}
    if front:
        record["frontend_fine"] = dict(zip(FINE, front))
    if back:
        record["backend_fine"] = dict(zip(FINE, back))
    return record


def moved(time, number, outcome, count=1):
    return {"event": "recovery_switch", "time": START + time, "slot": 0, "used": 1, "game_id": 77,
            "guid": guid(number), "need_switch": 1, "is_switch_succ": outcome, "count": count,
            "proxy_idc": 1, "elapse_time": 40000, "data_link_small_section_lost": 101,
            "data_link_full_section_lost": 23, "data_link_full_section_pack": 130,
            "switch_condition": "delay_amp>=20;delay_avg>=50;real_lost>=20"}


def reports():
    lines = [
        {"event": "loaded", "time": START, "slot": 0, "used": 1, "game_id": 77,
         "process_name": "vyr_game.exe"},
        {"event": "log_path", "time": START, "slot": 0, "used": 1, "game_id": 77,
         "log_path": "C:\\vyr\\</script><b>log</b>.log"},
        decision(50, 1, 7999, 2, kind=0),
        failed(5003, 2, 7000, 1, 202),
        decision(5100, 2, 7000, 0, node=2), negotiated(5100, 2, 7000, 2),
        decision(900, 3, 7001, 11, node=1), negotiated(900, 3, 7001, 1),
        failed(5003, 4, 8080, 1, 207, kind=0), failed(5100, 4, 8080, 2, 3, kind=0),
    ]
    sum_ms = asked = answered = 0
    for step in range(1, 25):
        life = 5000 * step
        wave = 9 * math.sin(step / 3)
        # Each sixth report lacks an answer; the fifteenth has a burst in it.
        now = 60 if step == 15 else 20
        asked, answered = asked + now, answered + now - int(step % 6 == 0)
        sum_ms += (14 + wave) * (now - int(step % 6 == 0))
        lines.append(traffic(5100 + life, 2, 7000, 2, life,
                             (int(sum_ms / answered), 60, 9, 3 + int(abs(wave)) // 2, answered, asked)))
        if step < 20:
            # It moves away at 46 s; from then on its figures stand still.
            seen = min(step, 9)
            back = (46 + 9 * seen, 199, 30, 6 + seen, 20 * seen - 3 * seen, 20 * seen) if seen > 1 else None
            report = traffic(900 + 5000 * seen, 3, 7001, 1, 5000 * seen,
                             (25 + 2 * seen, 90, 11, 4, 20 * seen, 20 * seen), back,
                             ended=int(step == 19))
            lines.append({**report, "time": START + 900 + life, "life": life})
    # Two nodes on trial, whose answers carry no guid of the flow: one fails, one takes over.
    lines += [{**negotiated(40000, 3, 7001, 3), "guid": ""}, moved(41000, 3, 4),
              decision(45000, 3, 7001, 11, node=2), {**negotiated(45000, 3, 7001, 2), "guid": ""},
              moved(46000, 3, 0, count=2)]
    return sorted(lines, key=lambda line: line["time"])


def one_flow(node_name, number=1, port=7000, reports=3):
    chosen = decision(0, number, port, 0, node=1)
    chosen["selected_proxy"]["proxy_name"] = node_name
    lines = [chosen, negotiated(0, number, port, 1)]
    for step in range(1, reports + 1):
        lines.append(traffic(5000 * step, number, port, 1, 5000 * step,
                             (14 + step, 60, 9, 3, 20 * step, 20 * step)))
    return lines


def many_flows(count):
    """The first ten have one report of their traffic, the others three."""
    return [line for i in range(count)
            for line in one_flow(f"node-{i}", i, 7000 + i, reports=1 if i < 10 else 3)]


def write(path, lines):
    with open(path, "w", encoding="utf-8") as file:
        for line in lines:
            file.write(json.dumps(line) + "\n")
