"""Tests of scripts/coverage.sh with made-up figures."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

import document
import figures
import listed
import measure
import page
import sources
import swarm

TREE = pathlib.Path(__file__).resolve().parents[2]
SOURCE = """// A comment.
bool Box::Open(int key) {
  if (key == 0) return false;
  Log("opens");
  return true;
}

void Close() {
  Log("closes");
}
"""
LISTED = """[[uncovered]]
file = "src/a/box.cpp"
function = "Close"
lines = ["void Close() {", 'Log("closes");']
reason = "a box is never closed"
"""
# What llvm-cov says where Open ran three times with other keys than 0, and Close never did.
SEGMENTS = [
    [2, 24, 3, True, True, False], [3, 7, 3, True, True, False], [3, 15, 3, True, False, False],
    [3, 16, 0, True, False, True], [3, 17, 0, True, True, False], [3, 29, 3, True, False, False],
    [6, 2, 0, False, False, False], [8, 14, 0, True, True, False], [10, 2, 0, False, False, False],
]  # fmt: skip
BRANCHES = [[3, 7, 3, 15, 0, 3, 0, 0, 4]]


class MadeUp(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.tree = pathlib.Path(self.folder.name)
        self.write(SOURCE)

    def write(self, text):
        path = self.tree / "src" / "a" / "box.cpp"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def files(self, segments=None, branches=None):
        exported = {"filename": "/elsewhere/src/a/box.cpp", "segments": segments or SEGMENTS,
                    "branches": branches or BRANCHES}  # fmt: skip
        return figures.read({"data": [{"files": [exported]}]}, self.tree)

    def box(self, **changes):
        return self.files(**changes)["src/a/box.cpp"]


class WhatRan(MadeUp):
    def test_lines_are_counted_without_those_of_brackets_alone(self):
        self.assertEqual(sorted(self.box().lines), [2, 3, 4, 5, 8, 9])

    def test_a_line_of_which_nothing_ran_is_uncovered(self):
        self.assertEqual(self.box().uncovered(), [8, 9])

    def test_a_part_of_a_line_that_did_not_run_is_noted(self):
        self.assertEqual(self.box().parts, {3: [17]})
        self.assertEqual(self.box().notes(3), ["from column 17 on it never runs", "condition at column 7 is never true"])

    def test_a_condition_has_two_branches(self):
        self.assertEqual((self.box().branch_count(), self.box().branches_taken()), (2, 1))

    def test_copies_of_a_template_count_together(self):
        self.assertEqual(self.box(branches=[*BRANCHES, [3, 7, 3, 15, 2, 0, 0, 0, 4]]).branches, {(3, 7): (2, 3)})

    def test_a_condition_that_the_compiler_knows_does_not_count(self):
        self.assertEqual(self.box(branches=[[3, 7, 3, 15, 0, 0, 0, 0, 4]]).branch_count(), 0)

    def test_a_condition_that_is_never_asked_counts(self):
        self.assertEqual(self.box(branches=[[9, 3, 9, 8, 0, 0, 0, 0, 4]]).branch_count(), 2)

    def test_files_of_other_folders_and_checkouts_are_told_apart(self):
        self.assertEqual(measure.relative("../../src/a/box.cpp", self.tree.parent / self.tree.name), "src/a/box.cpp")
        self.assertIsNone(measure.relative("/elsewhere/src/a/gone.cpp", self.tree))
        self.assertIsNone(measure.relative("/elsewhere/tests/a/box.cpp", self.tree))

    def test_sums_are_those_of_all_files(self):
        sums = document.by_folder(self.files())["src/a"]
        self.assertEqual((sums["lines"], sums["lines_run"], sums["branches"], sums["branches_taken"]), (6, 4, 2, 1))
        self.assertEqual((sums["line_share"], sums["branch_share"]), (66.67, 50.0))


class TheList(MadeUp):
    def verdict(self, text, **changes):
        return listed.compare(self.files(**changes), listed.parse(text))

    def test_a_line_that_is_listed_has_its_reason(self):
        verdict = self.verdict(LISTED)
        self.assertTrue(verdict.good())
        self.assertEqual(verdict.reasons["src/a/box.cpp", 9], "a box is never closed")

    def test_a_line_that_is_not_listed_is_missing(self):
        missing = self.verdict(LISTED.replace('"void Close() {", ', "")).missing
        self.assertEqual(missing, [("src/a/box.cpp", 8, "Close", "void Close() {")])

    def test_an_entry_stays_right_when_lines_move(self):
        self.write("\n\n" + SOURCE)
        moved = [[s[0] + 2, *s[1:]] for s in SEGMENTS]
        self.assertTrue(self.verdict(LISTED, segments=moved, branches=[[5, 7, 5, 15, 0, 3, 0, 0, 4]]).good())

    def test_the_same_text_in_another_function_is_another_line(self):
        verdict = self.verdict(LISTED.replace('"Close"', '"Box::Open"'))
        self.assertEqual(len(verdict.missing), 2)
        self.assertEqual({why for _, why in verdict.stale}, {"the line is in another function"})

    def test_an_entry_whose_line_runs_is_stale(self):
        runs = [[s[0], s[1], 1 if s[0] == 8 else s[2], *s[3:]] for s in SEGMENTS]
        self.assertEqual({why for _, why in self.verdict(LISTED, segments=runs).stale}, {"the line runs"})

    def test_an_entry_whose_line_or_file_is_gone_is_stale(self):
        gone = self.verdict(LISTED + LISTED.replace("closes", "shuts").replace('"void Close() {", ', ""))
        self.assertEqual([why for _, why in gone.stale], ["there is no such line"])
        gone = self.verdict(LISTED + LISTED.replace("box.cpp", "crate.cpp"))
        self.assertEqual({why for _, why in gone.stale}, {"there is no such file with code"})
        self.assertFalse(gone.good())

    def test_an_entry_needs_a_reason(self):
        for broken in (LISTED.replace('"a box is never closed"', '""'), LISTED.replace("reason", "because"),
                       LISTED.replace("[[", "["), LISTED + LISTED, "[other]\n", LISTED.replace('["', '[')):  # fmt: skip
            with self.assertRaises(listed.Unreadable):
                listed.parse(broken)

    def test_the_list_in_the_tree_names_lines_that_exist(self):
        for entry in listed.read(TREE / "tests" / "coverage" / "uncovered.toml"):
            text = (TREE / entry.file).read_text()
            functions = sources.functions(text)
            places = [n for n, line in enumerate(text.split("\n"), 1) if line.strip() == entry.text]
            self.assertIn(entry.function, {functions.get(n, "") for n in places}, entry)


class Functions(unittest.TestCase):
    def test_a_line_belongs_to_the_outermost_function(self):
        text = "int A::B(int x) const {\n  auto f = [x](int y) {\n    return y;\n  };\n  return f(x);\n}\nint z;\n"
        self.assertEqual(sources.functions(text), {n: "A::B" for n in range(1, 7)})

    def test_members_in_a_class_are_functions(self):
        text = "class A {\n  A() noexcept : x_(1) {}\n  ~A() { x_ = 0; }\n  bool operator==(const A& b) {\n  }\n};\n"
        self.assertEqual(sources.functions(text), {2: "A", 3: "~A", 4: "operator==", 5: "operator=="})


class WhatIsWritten(MadeUp):
    def test_the_document_has_the_figures_of_each_folder(self):
        verdict = listed.compare(self.files(), listed.parse(LISTED))
        said = document.markdown(self.tree, self.files(), verdict)
        self.assertIn("| src/a | 6 | 66.67 | 2 | 50.00 |", said)
        self.assertIn("2 lines are listed", said)

    def test_the_json_has_each_line_with_its_reason(self):
        verdict = listed.compare(self.files(), listed.parse(LISTED))
        said = document.as_json(self.files(), verdict, {"suites": ["unit"], "failures": []})
        self.assertEqual([(e["line"], e["reason"]) for e in said["uncovered_lines"]],
                         [(8, "a box is never closed"), (9, "a box is never closed")])  # fmt: skip
        self.assertEqual([(e["line"], e["true"]) for e in said["uncovered_branches"]], [(3, 0)])

    def test_the_pages_show_what_did_not_run(self):
        files = self.files()
        page.write(self.tree / "pages", files, listed.compare(files, []))
        self.assertIn("box.cpp:9", (self.tree / "pages" / "index.html").read_text())
        self.assertIn("class='no'", (self.tree / "pages" / "src_a_box.cpp.html").read_text())


class TheSwarm(MadeUp):
    def markdown(self, entries=()):
        return swarm.markdown(self.files(), listed.parse("".join(entries)), 40, "some day at some commit")

    def test_its_table_counts_functions_too(self):
        self.assertIn("| src/a | 6 | 66.67 | 2 | 50.00 | 2 | 1 |", self.markdown())
        self.assertIn("| **all** | 6 | 66.67 | 2 | 50.00 | 2 | 1 |", self.markdown())

    def test_a_function_that_never_ran_is_named_with_its_line(self):
        self.assertIn("- `src/a/box.cpp`: `Close` (8)\n", self.markdown())

    def test_of_the_others_it_says_what_never_happened(self):
        self.assertIn("| `src/a/box.cpp:2` | `Box::Open` |  | 3 true |\n", self.markdown())

    def test_what_no_test_reaches_is_left_out(self):
        self.assertNotIn("`Close`", self.markdown([LISTED]))

    def test_line_numbers_and_conditions_are_said_in_few_words(self):
        self.assertEqual(swarm.ranges({7, 3, 5, 6}), "3, 5-7")
        self.assertEqual(swarm.ranges(set()), "")
        words = [f"{line} true" for line in range(swarm.MOST_SHOWN + 2)]
        self.assertTrue(swarm.shortened(words).endswith(f"{swarm.MOST_SHOWN - 1} true and 2 more"))
        box = self.box(branches=[[3, 7, 3, 15, 0, 3, 0, 0, 4], [3, 17, 3, 20, 0, 0, 0, 0, 4]])
        self.assertEqual(list(swarm.untaken(box, (2, 6, "Box::Open"))), ["3:7 true", "3:17 asked"])

    def test_its_worlds_are_shared_out_and_none_is_lost(self):
        jobs = list(measure.swarm_jobs("program", 7))
        seeds = [first + n for _, _, said in jobs
                 for first in [int(said["VYR_SWARM_FIRST"])] for n in range(int(said["VYR_SWARM_SEEDS"]))]  # fmt: skip
        self.assertEqual(seeds, list(range(1, 8)))
        self.assertEqual(len(list(measure.swarm_jobs("program", 1))), 1)


class TheCommand(unittest.TestCase):
    def test_wrong_usage_is_refused(self):
        for words in (["--only", "nothing"], ["--keep", "--only", "unit"], ["--last", "--only", "unit"],
                      ["--only", "swarm", "--only", "unit"], ["--seeds", "5"], ["--only", "swarm", "--seeds", "0"],
                      ["--only", "swarm", "--add"]):  # fmt: skip
            done = subprocess.run([TREE / "scripts" / "coverage.sh", *words], capture_output=True, check=False)
            self.assertEqual(done.returncode, 2, words)


if __name__ == "__main__":
    result = unittest.main(exit=False, verbosity=0).result
    bad = len(result.failures) + len(result.errors)
    print(f"{result.testsRun - bad} passed, {bad} failed")
    sys.exit(bool(bad))
