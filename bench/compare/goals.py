"""What the library is meant to reach, and how far a run of the benchmarks is from it.

A goal is a ratio of two ways in one row, above 1 if the first is better, and the least that is wanted of it. A
"better of" goal has two opponents, and the lower ratio counts."""

import dataclasses

COUNTS = (1, 4, 16, 60)
SERVER = "60 flows, 128/s of 100 B"
PACES = ("30/s of 40 B", "60/s of 100 B", "128/s of 1200 B")


@dataclasses.dataclass
class Goal:
    bench: str
    measure: str
    pairs: tuple
    least: float
    unit: str = ""  # where two rows have the same name


def flows(count):
    return "1 flow" if count == 1 else f"{count} flows"


def goals():
    for count in COUNTS:
        for pair, least in (("vyr/nginx", 1 / 0.95), ("vyr/select", 1 / 0.9)):
            yield Goal("udp_bench", f"{flows(count)}, game and relay", (pair,), least)
    for pace in PACES:
        for share in ("p50", "p99"):
            yield Goal("pace_bench", f"{pace}, {share}", ("vyr/nginx", "vyr/socat"), 1)
    for measure in ("reply, median", "reply, p99"):
        yield Goal("tcp_bench", measure, ("vyr/haproxy", "vyr/socat"), 1)
    yield Goal("tcp_bench", "connections set up", ("vyr/haproxy",), 0.95)
    for count in COUNTS[1:]:
        yield Goal("tcp_bench", f"processor, {count} conn.", ("vyr/haproxy",), 1, "us/trip")
    for task in ("download", "upload"):
        for count in COUNTS:
            yield Goal("tcp_bench", f"{task}, {count} conn.", ("vyr+mend/haproxy", "vyr+mend/socat"), 1)


def row_of(goal, results):
    for row in results["tables"].get(goal.bench, []):
        if row["measure"] == goal.measure and goal.unit in ("", row["unit"]):
            return row
    return None


def reached(goal, results):
    """(ratio, pair, its middle half) of the worst of the goal's pairs; None if it was not measured."""
    row = row_of(goal, results)
    measured = [(row["ratio"][pair], pair, row["quartiles"][pair])
                for pair in goal.pairs if row and pair in row.get("ratio", {})]  # fmt: skip
    return min(measured) if measured else None


def growth(results, way):
    """Processor time of a datagram at 60 flows in terms of that at one flow."""
    one, many = (row_of(Goal("udp_bench", f"{flows(count)}, game and relay", (), 0), results) for count in (1, 60))
    return many["median"][way] / one["median"][way] if one and many and way in one["median"] else None


def added(results, pace, way, share):
    """What a way adds to the delay: that percentile of all its round trips, less the direct way's. None if unknown."""
    ways = results.get("percentiles", {}).get(pace, {})
    if way not in ways or "direct" not in ways:
        return None
    return dict(map(tuple, ways[way]["us"]))[share] - dict(map(tuple, ways["direct"]["us"]))[share]


def added_lines(results):
    """The goals for the delay that is added, of all rounds together."""
    for share in (0.5, 0.99):
        own, *others = [(added(results, SERVER, way, share), way) for way in ("vyr", "nginx", "socat")]
        ratios = [(delay / own[0], way) for delay, way in others if delay and own[0] and own[0] > 0]
        if not ratios:
            continue
        ratio, way = min(ratios)
        short = "" if ratio >= 1 else f"{(1 - ratio) * 100:.0f} %"
        yield [f"{SERVER}, added delay, p{share * 100:.0f} of {count(results):,}", f"vyr/{way}", "1.00",
               f"**{ratio:.2f}**", short]  # fmt: skip


def count(results):
    """Of how many round trips."""
    return results["percentiles"][SERVER]["vyr"]["count"]


def lines(results):
    """Rows of a table: what, against whom, wanted, measured, and by how much it falls short."""
    for goal in goals():
        found = reached(goal, results)
        if found is None:
            continue
        ratio, pair, (low, high) = found
        short = "" if ratio >= goal.least else f"{(1 - ratio / goal.least) * 100:.0f} %"
        yield [goal.measure, pair, f"{goal.least:.2f}", f"**{ratio:.2f}** ({low:.2f}–{high:.2f})", short]
    yield from added_lines(results)
    for way in ("vyr", "nginx", "select", "direct"):  # the others for comparison
        times = growth(results, way)
        if times is not None:
            wanted = "at most 1.20" if way == "vyr" else ""
            short = f"{(times / 1.2 - 1) * 100:.0f} %" if wanted and times > 1.2 else ""
            yield ["game and relay, 60 flows in terms of one", way, wanted, f"**{times:.2f}**", short]
