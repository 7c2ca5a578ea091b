"""Which rows got worse since the run that is kept in the tree.

Absolute times depend on the machine, so only ratios of figures of one run are compared. A row got worse
if the two runs lie apart: its median is below the middle half of the earlier run, and its own middle
half is below the earlier median."""


def compare(last, now):
    """Prints the comparison. True if nothing got worse."""
    before, after = ratios(last), ratios(now)
    machines = [results["machine"]["processor"] for results in (last, now)]
    if machines[0] != machines[1]:
        print(f"note: the kept run is from another machine ({machines[0]}, this one is {machines[1]}); even ratios "
              "depend on it")  # fmt: skip
    common = [row for row in before if row in after]
    worse = [row for row in common if got_worse(before[row], after[row])]
    better = [row for row in common if got_worse(after[row], before[row])]
    for title, rows in (("worse", worse), ("better", better)):
        for row in rows:
            print(f"{title:8} {' / '.join(row)}: {spread(before[row])} before, {spread(after[row])} now")
    missing = [row for row in before if row not in after]
    for row in missing:
        print(f"missing  {' / '.join(row)}")
    print(f"{len(common)} rows compared: {len(worse)} worse, {len(better)} better; {len(missing)} missing")
    return not worse


def spread(row):
    return f"{row[0]:.2f} ({row[1]:.2f} to {row[2]:.2f})"


def got_worse(before, after):
    median, low, high = after
    return median < before[1] and high < before[0]


def ratios(results):
    """(bench, row, pair) to median and quartiles; above 1 the first of the pair is better."""
    found = {}
    for bench, rows in results["tables"].items():
        for row in rows:
            for pair, ratio in row.get("ratio", {}).items():
                found[bench, row["measure"], pair] = (ratio, *row["quartiles"][pair])
    calls = results["calls"].get("hook_bench", {})
    bare = calls.get("SystemSend")
    for name, figures in calls.items():
        if bare and name != "SystemSend":
            low, high = figures["quartiles"]
            found["hook_bench", name, "SystemSend"] = tuple(
                bare["ns"] / value for value in (figures["ns"], high, low))  # fmt: skip
    return found
