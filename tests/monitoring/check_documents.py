#!/usr/bin/env python3
"""docs/monitoring.md lists the metrics that there are, and the dashboard asks for no others.

usage: check_documents.py VYR_CLIENT VYR_NODE

Exit code 77 where all is well but nothing could read the dashboard's queries.
"""
import json
import os
import re
import sys

import check_node
import served
import javascript  # in the path since served was read
from served import Checks, Client, Node, sample_run

DOCS = served.HERE.parents[1] / "docs"
# What Prometheus adds to every sample.
ADDED = {"job", "instance"}
NAME = re.compile(r"\bvyr_\w+")
# Grafana's own, for the values of a variable: a selector and a label.
LABEL_VALUES = re.compile(r"label_values\((.*),\s*(\w+)\)")
# Dashboard variables whose names Grafana gives.
GIVEN = {"__rate_interval"}


def collect(client, node):
    """The labels of every metric that there is, by its name: after a run in which everything happens."""
    labels = {}
    with Client(client) as program:
        run = sample_run.reports()
        run += [{**run[-1], "guid_str": "other", "ended": 0, "direct_delay": 80, "topology_type": 2,
                 "backend_fine": {"delay_avg": 9, "total_recv": 1, "total_send": 1}}]
        program.feed(run)
        assert program.has(len(run))
        scraped = [program.served.metrics()]
    with Node(node, "--result", "9") as program:
        flow = check_node.Flow(program, ("127.0.0.1", 9), 1)
        assert flow.result == 9
        assert served.wait_until(lambda: program.served.metrics().sum("vyr_node_refusals_total"))
        scraped.append(program.served.metrics())
    for metrics in scraped:
        for name in metrics.names():
            labels[name] = metrics.labels_of(name)
            assert any(other == name for other, _ in metrics.samples), f"no sample of {name}"
    return labels


def documented():
    """The labels by metric, as the tables of docs/monitoring.md have them."""
    found, before = {}, set()
    for line in (DOCS / "monitoring.md").read_text(encoding="utf-8").splitlines():
        cells = line.split("|")
        if len(cells) < 4 or not re.match(r" `vyr_\w+`", cells[1]):
            continue
        words = set(re.findall(r"`(\w+)`", cells[2]))
        if "the same" in cells[2]:
            words |= before
        if "as `vyr_flows`" in cells[2]:
            words = found["vyr_flows"]
        for name in NAME.findall(cells[1]):
            found[name] = words
        before = words - {"section"}
    return found


def queries(dashboard):
    """(where, query)"""
    for variable in dashboard["templating"]["list"]:
        if variable["type"] == "query":
            yield "variable " + variable["name"], variable["query"]["query"]
            assert variable["definition"] == variable["query"]["query"]
    for panel in dashboard["panels"]:
        for target in panel.get("targets", ()):
            yield panel["title"], target["expr"]


def parsed(texts):
    """What Prometheus's grammar makes of each (read_queries.js). None: there is no parser here."""
    try:
        folder = javascript.parts("promql")
    except javascript.Missing as missing:
        print(f"the queries are not read: {missing}")
        return None
    return javascript.ask(served.HERE / "read_queries.js", texts, timeout_s=served.TIMEOUT_S,
                          env={**os.environ, "NODE_PATH": folder})


def as_promql(query):
    """The query after Grafana has put in what is its own; of label_values, the metric and the label."""
    query = query.replace("$__rate_interval", "1m")
    values = LABEL_VALUES.fullmatch(query)
    return (values[1], {values[2]}) if values else (query, set())


def check_query(checks, where, query, read, labels, variables):
    checks.that(not read["errors"], f"{where}: is PromQL", (query, read["errors"]))
    checks.that(read["metrics"], f"{where}: asks for something", query)
    used = set(re.findall(r"\$\{?(\w+)", query))
    checks.that(used <= variables | GIVEN, f"{where}: its variables exist", used)
    known, listed = set(ADDED), as_promql(query)[1]
    for metric in read["metrics"]:
        # Variables may ask for several metrics at once, by a pattern of their names.
        names = {metric["name"]} if "name" in metric else set(NAME.findall(query))
        checks.that(names <= set(labels), f"{where}: asks for what there is", names - set(labels))
        own = ADDED.union(*(labels.get(name, set()) for name in names))
        asked = set(metric["labels"]) - {"__name__"}
        checks.that(asked <= own, f"{where}: selects by labels of {sorted(names)}", asked - own)
        known |= own
    grouped = set().union(listed, *read["aggregations"])
    checks.that(grouped <= known, f"{where}: groups by labels that exist", grouped - known)


def check_types(checks, where, query, read, labels):
    """What only grows is looked at through a rate, and nothing else is."""
    if LABEL_VALUES.fullmatch(query):
        return
    for metric in read["metrics"]:
        name = metric.get("name", "")
        is_rated = metric["isRange"] and metric["functions"][:1] in (["rate"], ["increase"])
        is_sum = query.startswith(f"sum({name}") and "Processes" in where
        checks.that(is_rated == name.endswith("_total") or is_sum, f"{where}: {name} by its type", query)


def check_queries(checks, dashboard, labels):
    """False: they could not be read."""
    variables = {variable["name"] for variable in dashboard["templating"]["list"]}
    asked = list(queries(dashboard))
    reads = parsed([as_promql(query)[0] for _, query in asked])
    if reads is None:
        return False
    for (where, query), read in zip(asked, reads, strict=True):
        check_query(checks, where, query, read, labels, variables)
        check_types(checks, where, query, read, labels)
    names = {metric.get("name") for read in reads for metric in read["metrics"]}
    checks.that(len(names) > 30, "it shows most of what there is", len(names))
    return True


def check_reader(checks):
    """The reader finds what is wrong, so that its silence means something."""
    wrong = parsed(["sum(rate(vyr_flows[5m]", "vyr_flows{node=}", "rat(vyr_flows[5m])"]) or []
    for read in wrong:
        checks.that(read["errors"], "a query that is none is found", read)


def check_dashboard(checks, labels):
    dashboard = json.loads((DOCS / "grafana-dashboard.json").read_text(encoding="utf-8"))
    is_read = check_queries(checks, dashboard, labels)
    for panel in dashboard["panels"]:
        for target in panel.get("targets", ()):
            shown = set(re.findall(r"\{\{(\w+)\}\}", target["legendFormat"]))
            grouped = re.search(r"\bby \(([^)]*)\)", target["expr"])
            kept = set(re.split(r"\W+", grouped[1])) if grouped else ADDED.union(
                *(labels[name] for name in NAME.findall(target["expr"]) if name in labels))
            checks.that(shown <= kept, f"{panel['title']}: its legend has what is left", shown - kept)
            checks.that(target["datasource"]["uid"] == "${source}", "the reader chooses the data source")
    ids = [panel["id"] for panel in dashboard["panels"]]
    checks.that(len(set(ids)) == len(ids), "each panel has a number", ids)
    places = [(p["gridPos"]["x"], p["gridPos"]["y"]) for p in dashboard["panels"]]
    checks.that(len(set(places)) == len(places), "and a place", places)
    text = json.dumps(dashboard)
    checks.that("http" not in text, "it names nobody's server")
    return is_read


def main():
    checks = Checks()
    labels = collect(sys.argv[1], sys.argv[2])
    written = documented()
    checks.that(set(written) == set(labels), "docs/monitoring.md lists what there is",
                sorted(set(written) ^ set(labels)))
    for name in sorted(set(written) & set(labels)):
        checks.that(written[name] == labels[name], f"the labels of {name}", (written[name], labels[name]))
    is_read = check_dashboard(checks, labels)
    check_reader(checks)
    print(f"{checks.passed} passed, {checks.failed} failed")
    sys.exit(1 if checks.failed else 0 if is_read else 77)


if __name__ == "__main__":
    main()
