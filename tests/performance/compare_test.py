"""Tests of bench/compare.sh with made-up results and with those in the tree."""

import copy
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

TREE = pathlib.Path(__file__).resolve().parents[2]
COMPARE = TREE / "bench" / "compare"
sys.path.insert(0, str(COMPARE))
import check  # noqa: E402
import goals  # noqa: E402
import measure  # noqa: E402
import report  # noqa: E402


def result(ratio, low, high, unit="us"):
    return {
        "machine": {"date": "2026-01-01", "commit": "abc", "kernel": "6", "processors": 2, "processor": "P",
                    "load_before": 0.1, "load_after": 0.2},
        "rounds": 9,
        "calls": {"hook_bench": {
            "NextProviderSend/1": {"ns": 2, "quartiles": [2, 2]},
            "HookedSend/16": {"ns": 32, "quartiles": [30, 35]},
            "SystemSend": {"ns": 2000, "quartiles": [1900, 2100]},
        }},
        "tables": {"udp_bench": [
            {"measure": "1 flow, game and relay", "unit": unit, "median": {"vyr": 8.0, "nginx": 8.0 * ratio},
             "ratio": {"vyr/nginx": ratio}, "quartiles": {"vyr/nginx": [low, high]}},
        ]},
        "percentiles": {"60/s of 100 B": {
            "direct": {"count": 1000, "us": [[0.5, 40.0], [0.99, 90.0], [0.999, 200.0]]},
            "vyr": {"count": 1000, "us": [[0.5, 60.0], [0.99, 130.0], [0.999, 350.0]]},
        }},
    }  # fmt: skip


def compare(*words):
    return subprocess.run([TREE / "bench" / "compare.sh", *map(str, words)], capture_output=True, text=True,
                          check=False)  # fmt: skip


class WhatIsWorse(unittest.TestCase):
    def worse(self, before, after):
        return check.got_worse(before, after)

    def test_a_row_within_the_spread_of_either_run_is_not_worse(self):
        self.assertFalse(self.worse((1.0, 0.9, 1.1), (0.95, 0.85, 1.05)))
        self.assertFalse(self.worse((1.0, 0.9, 1.1), (0.85, 0.6, 1.01)), "its middle half has the old median")
        self.assertFalse(self.worse((1.0, 0.8, 1.1), (0.85, 0.84, 0.86)), "it is within the old middle half")

    def test_a_row_below_both_spreads_is_worse(self):
        self.assertTrue(self.worse((1.0, 0.9, 1.1), (0.85, 0.8, 0.95)))

    def test_better_is_not_worse(self):
        self.assertFalse(self.worse((1.0, 0.9, 1.1), (1.5, 1.4, 1.6)))

    def test_a_slower_hook_is_worse(self):
        slower = result(1.0, 0.9, 1.1)
        slower["calls"]["hook_bench"]["HookedSend/16"] = {"ns": 64, "quartiles": [60, 70]}
        before, after = check.ratios(result(1.0, 0.9, 1.1)), check.ratios(slower)
        row = ("hook_bench", "HookedSend/16", "SystemSend")
        self.assertTrue(check.got_worse(before[row], after[row]))

    def test_check_says_which_row_and_fails(self):
        with tempfile.TemporaryDirectory() as folder:
            now = copy.deepcopy(json.loads((TREE / "bench" / "last.json").read_text()))
            row = next(row for row in now["tables"]["udp_bench"] if row.get("ratio"))
            pair = next(iter(row["ratio"]))
            row["ratio"][pair], row["quartiles"][pair] = 0.01, [0.01, 0.01]
            path = pathlib.Path(folder, "now.json")
            path.write_text(json.dumps(now))
            ended = compare("--from", path, "--check")
            self.assertEqual(ended.returncode, 1, ended.stderr)
            self.assertIn(f"worse    udp_bench / {row['measure']} / {pair}", ended.stdout)
            self.assertIn(": 1 worse", ended.stdout)

    def test_another_machine_is_named(self):
        with tempfile.TemporaryDirectory() as folder:
            now = json.loads((TREE / "bench" / "last.json").read_text())
            now["machine"]["processor"] = "Another One"
            path = pathlib.Path(folder, "now.json")
            path.write_text(json.dumps(now))
            self.assertIn("this one is Another One", compare("--from", path, "--check").stdout)

    def test_the_same_results_are_not_worse(self):
        ended = compare("--from", TREE / "bench" / "last.json", "--check")
        self.assertEqual(ended.returncode, 0, ended.stdout + ended.stderr)
        self.assertIn(" 0 worse, 0 better; 0 missing", ended.stdout)


class Results(unittest.TestCase):
    def test_repetitions_become_median_and_middle_half(self):
        runs = [{"run_type": "iteration", "run_name": "A", "cpu_time": time} for time in (5, 1, 3, 2, 4)]
        runs.append({"run_type": "aggregate", "run_name": "A", "cpu_time": 99})
        self.assertEqual(measure.medians({"benchmarks": runs}), {"A": {"ns": 3, "quartiles": [2, 4]}})

    def test_tables_of_one_bench_are_joined(self):
        results = {"calls": {}, "tables": {}}
        for name in ("a", "b"):
            measure.take(results, "udp_bench", {"rounds": 9, "rows": [{"measure": name}]})
        self.assertEqual([row["measure"] for row in results["tables"]["udp_bench"]], ["a", "b"])

    def test_several_documents_are_read(self):
        self.assertEqual(measure.documents_of(["echo", '{"a": 1}\n{"b":\n 2}']), [{"a": 1}, {"b": 2}])
        self.assertEqual(measure.documents_of(["echo", '{"a": 1} and more']), [])


class Page(unittest.TestCase):
    def test_the_page_has_the_figures(self):
        text = report.text(TREE, result(1.25, 1.1, 1.3))
        self.assertIn("| 1 flow, game and relay | us | 8 | 10 | **1.25** (1.10–1.30) |", text)
        self.assertIn("| 60/s of 100 B | vyr | 1,000 | 20 | 40 | 150 |", text)
        self.assertIn("30 ns more", text)
        self.assertIn("**1.015**", text)
        self.assertIn("*Not measured.*", text)
        self.assertNotIn("{{", text)

    def test_a_goal_says_by_how_much_it_is_missed(self):
        self.assertIn("| 1 flow, game and relay | vyr/nginx | 1.05 | **1.00** (0.90–1.10) | 5 % |",
                      report.text(TREE, result(1.0, 0.9, 1.1)))  # fmt: skip
        self.assertIn("| 1 flow, game and relay | vyr/nginx | 1.05 | **1.06** (0.90–1.10) |  |",
                      report.text(TREE, result(1.06, 0.9, 1.1)))  # fmt: skip

    def test_of_two_opponents_the_stronger_counts(self):
        results = {"tables": {"tcp_bench": [
            {"measure": "download, 4 conn.", "unit": "MB/s", "median": {},
             "ratio": {"vyr+mend/haproxy": 1.5, "vyr+mend/socat": 0.8},
             "quartiles": {"vyr+mend/haproxy": [1.4, 1.6], "vyr+mend/socat": [0.7, 0.9]}}]}}  # fmt: skip
        self.assertEqual(list(goals.lines(results)),
                         [["download, 4 conn.", "vyr+mend/socat", "1.00", "**0.80** (0.70–0.90)", "20 %"]])  # fmt: skip

    def test_the_delay_of_a_million_round_trips_is_compared_less_the_direct_way(self):
        ways = {way: {"count": 1000, "us": [[0.5, p50], [0.99, p99]]}
                for way, p50, p99 in (("direct", 10, 20), ("vyr", 30, 60), ("nginx", 40, 50), ("socat", 50, 90))}  # fmt: skip
        lines = list(goals.lines({"tables": {}, "percentiles": {"60 flows, 128/s of 100 B": ways}}))
        self.assertEqual([line[1:] for line in lines],
                         [["vyr/nginx", "1.00", "**1.50**", ""], ["vyr/nginx", "1.00", "**0.75**", "25 %"]])  # fmt: skip
        self.assertIn("p99 of 1,000", lines[1][0])

    def test_growth_is_of_the_same_way(self):
        rows = [{"measure": f"{flows}, game and relay", "unit": "us", "median": {"vyr": us}, "ratio": {}}
                for flows, us in (("1 flow", 10.0), ("60 flows", 15.0))]  # fmt: skip
        self.assertEqual(list(goals.lines({"tables": {"udp_bench": rows}}))[-1][-2:], ["**1.50**", "25 %"])

    def test_the_page_in_the_tree_is_that_of_the_results_in_the_tree(self):
        last = json.loads((TREE / "bench" / "last.json").read_text())
        self.assertEqual(report.text(TREE, last), (TREE / "docs" / "performance.md").read_text(),
                         "run: bench/compare.sh --from bench/last.json --keep")  # fmt: skip
        for picture in ("performance-pace.svg", "performance-growth.svg"):
            self.assertIn("<svg", (TREE / "docs" / picture).read_text())


class CommandLine(unittest.TestCase):
    def test_what_makes_no_sense_is_refused(self):
        for words in (["--only", "nothing"], ["--from", "x", "--quick"], ["--keep", "--quick"], ["--fast"]):
            self.assertEqual(compare(*words).returncode, 2, words)

    def test_a_file_that_is_missing_or_no_results_is_named(self):
        ended = compare("--from", "/no/such/file")
        self.assertEqual(ended.returncode, 1)
        self.assertIn("/no/such/file: No such file", ended.stderr)
        with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
            file.write("no")
            file.flush()
            ended = compare("--from", file.name)
            self.assertEqual(ended.returncode, 1)
            self.assertIn(file.name, ended.stderr)


if __name__ == "__main__":
    unittest.main()
