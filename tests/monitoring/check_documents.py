#!/usr/bin/env python3
"""docs/monitoring.md lists the metrics that there are, and the dashboard asks for no others.

usage: check_documents.py VYR_CLIENT VYR_NODE
"""
import json
import re
import sys

import check_node
import served
from served import Checks, Client, Node, sample_run

DOCS = served.HERE.parents[1] / "docs"
# What Prometheus adds to every sample.
ADDED = {"job", "instance"}
NAME = re.compile(r"\bvyr_\w+")
# A metric in a query, with its selector.
SELECTED = re.compile(r"\b(vyr_\w+)\s*(?:\{([^}]*)\})?")
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


def check_query(checks, where, query, labels, variables):
    names = set(NAME.findall(query))
    checks.that(names, f"{where}: asks for something", query)
    checks.that(names <= set(labels), f"{where}: asks for what there is", names - set(labels))
    for left, right in ("()", "[]", "{}"):
        checks.that(query.count(left) == query.count(right), f"{where}: {left}{right} agree", query)
    used = set(re.findall(r"\$\{?(\w+)", query))
    checks.that(used <= variables | GIVEN, f"{where}: its variables exist", used)
    known = ADDED.union(*(labels.get(name, set()) for name in names))
    grouped = {word for group in re.findall(r"\bby \(([^)]*)\)", query) for word in re.split(r"\W+", group) if word}
    checks.that(grouped <= known, f"{where}: groups by labels that exist", grouped - known)
    for name, selector in SELECTED.findall(query):
        asked = set(re.findall(r"(\w+)\s*(?:=~|!~|!=|=)", selector))
        checks.that(asked <= labels.get(name, set()) | ADDED, f"{where}: selects by labels of {name}", asked)


def check_types(checks, where, query, labels):
    """What only grows is looked at through a rate, and nothing else is."""
    for name in NAME.findall(query):
        if name not in labels or "label_values" in query:
            continue
        is_rated = re.search(rf"\b(?:rate|increase)\({name}\b[^)]*\[", query)
        is_sum = query == f"sum({name}" + query[len(f"sum({name}"):] and "Processes" in where
        checks.that(bool(is_rated) == name.endswith("_total") or is_sum, f"{where}: {name} by its type", query)


def check_dashboard(checks, labels):
    dashboard = json.loads((DOCS / "grafana-dashboard.json").read_text(encoding="utf-8"))
    variables = {variable["name"] for variable in dashboard["templating"]["list"]}
    asked = set()
    for where, query in queries(dashboard):
        check_query(checks, where, query, labels, variables)
        check_types(checks, where, query, labels)
        asked |= set(NAME.findall(query))
    checks.that(len(asked) > 30, "it shows most of what there is", len(asked))
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


def main():
    checks = Checks()
    labels = collect(sys.argv[1], sys.argv[2])
    written = documented()
    checks.that(set(written) == set(labels), "docs/monitoring.md lists what there is",
                sorted(set(written) ^ set(labels)))
    for name in sorted(set(written) & set(labels)):
        checks.that(written[name] == labels[name], f"the labels of {name}", (written[name], labels[name]))
    check_dashboard(checks, labels)
    print(f"{checks.passed} passed, {checks.failed} failed")
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    main()
