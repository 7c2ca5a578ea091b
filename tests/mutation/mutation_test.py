#!/usr/bin/env python3
"""The mutants of a made-up file: which are found, which places are left out, what a copy does when one of
them acts, and what the list of equivalent mutants says. Exit: 77 no libclang for Python here."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import types
import unittest

import equivalents
import judge
import places
import run
import schemata
import summary

SAMPLE = """\
#define LOG_LINE(...) Log(__VA_ARGS__)
void Log(int level, int value);
constexpr int kMost = 3;
static_assert(kMost + 1 == 4);
template <int N> struct Sized { int values[N + 1]; };
enum Colour { kRed = 1 };
struct Counter {
  unsigned seen = 2;
  int bits : 4;
  bool IsFull() const { return seen >= kMost; }
};
int Sum(int* values, int count, bool strict) {
  int sum = 0;
  char room[kMost] = {};
  static int calls = 5;
  for (int i = 0; i < count; ++i) {
    if (strict && values[i] < 0) break;
    switch (values[i]) {
      case 7: continue;
      default: sum += values[i];
    }
  }
  LOG_LINE(5, sum + 1);
  while (sum > 100) sum -= room[1] + calls;
  return sum;
}
bool Known(Counter* c) {
  if (!c) return false;
  return c->IsFull();
}
void Early(bool out) {
  if (out) return;
  Log(0, 1);
}
"""
MAIN = """
#include <cstdio>
#include <cstdlib>
#include "mutation/mutant.h"
std::atomic<unsigned char> notes[999];
namespace mutation { unsigned active; std::atomic<unsigned char>* reached; }
int logged;
void Log(int, int value) { logged = value; }
int Sum(int* values, int count, bool strict);
int main(int count, char** words) {
  mutation::active = std::atoi(words[1]);
  if (count > 2) mutation::reached = notes;
  int values[] = {4, 7, 5, -1, 3};
  const int sum = Sum(values, 5, true);
  std::printf("%d %d\\n", sum, logged);
  for (int i = 0; i < 999; ++i) if (notes[i]) std::printf("%d ", i);
}
"""


LINE_OF_THREE = 16  # the loop has three statements


class Sample(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.root = pathlib.Path(cls.folder.name)
        (cls.root / "sample.cpp").write_text(SAMPLE)
        found = places.find(cls.root / "sample.cpp", ["-std=c++20"], cls.root)
        cls.text, cls.mutants = schemata.mutated(SAMPLE, "sample.cpp", found[str(cls.root / "sample.cpp")], 1)

    def of(self, function):
        return [mutant["change"] for mutant in self.mutants if mutant["function"] == function]

    def number(self, change):
        return next(mutant["number"] for mutant in self.mutants if mutant["change"] == change)

    def test_every_kind_is_found(self):
        self.assertEqual(self.of("Counter::seen"), ["unsigned seen = 2 -> unsigned seen = (2 + 1)",
                                                    "unsigned seen = 2 -> unsigned seen = (2 - 1)"])  # fmt: skip
        self.assertEqual(self.of("Counter::IsFull"), ["seen >= kMost -> seen > kMost", "seen >= kMost -> seen >= (kMost + 1)",
                                                      "seen >= kMost -> seen >= (kMost - 1)"])  # fmt: skip
        self.assertEqual(self.of("Known"), ["!c -> c", "return false -> return true",
                                            "return c->IsFull() -> return true", "return c->IsFull() -> return false"])  # fmt: skip
        self.assertEqual(self.of("Early"), ["out -> !(out)", "return -> (nothing)", "Log(0, 1) -> (nothing)",
                                            "Log(0, 1) -> Log((0 + 1), 1)", "Log(0, 1) -> Log(0, (1 + 1))",
                                            "Log(0, 1) -> Log(0, (1 - 1))"])  # fmt: skip
        for change in ("i < count -> !(i < count)", "i < count -> i <= count", "++i -> (nothing)", "++i -> --i",
                       "strict && values[i] < 0 -> strict", "strict && values[i] < 0 -> values[i] < 0",
                       "break -> continue", "sum += values[i] -> (nothing)", "sum += values[i] -> sum -= values[i]",
                       "room[1] + calls -> room[1] - calls", "return sum -> return 0"):  # fmt: skip
            self.assertIn(change, self.of("Sum"))

    def test_constants_of_the_compiler_and_macros_are_left_out(self):
        functions = {mutant["function"] for mutant in self.mutants}
        self.assertEqual(functions, {"Counter::seen", "Counter::IsFull", "Sum", "Known", "Early"})
        changes = " ".join(self.of("Sum"))
        for text in ("7", "calls = ", "room[kMost]", "sum + 1", "continue -> break"):
            self.assertNotIn(text, changes)

    def test_a_mutant_keeps_its_name_when_lines_shift(self):
        (self.root / "later.cpp").write_text("\n\n" + SAMPLE)
        found = places.find(self.root / "later.cpp", ["-std=c++20"], self.root)[str(self.root / "later.cpp")]
        _, later = schemata.mutated("\n\n" + SAMPLE, "sample.cpp", found, 1)
        self.assertEqual([equivalents.key_of(m) for m in later], [equivalents.key_of(m) for m in self.mutants])
        self.assertEqual([m["line"] for m in later], [m["line"] + 2 for m in self.mutants])

    def test_one_mutant_of_a_statement_is_chosen_wherever_it_stands(self):
        by_line = {}
        for mutant in self.mutants:
            by_line.setdefault(mutant["line"], []).append(mutant["chosen"])
        self.assertEqual({sum(chosen) for line, chosen in by_line.items() if line != LINE_OF_THREE}, {0, 1})
        self.assertTrue(any(len(chosen) > 1 and sum(chosen) for chosen in by_line.values()))
        text = "// a; b\n\n" + SAMPLE.replace("Log(0, 1)", "Log(0, 2)")
        (self.root / "moved.cpp").write_text(text)
        found = places.find(self.root / "moved.cpp", ["-std=c++20"], self.root)[str(self.root / "moved.cpp")]
        _, moved = schemata.mutated(text, "sample.cpp", found, 1)
        for one, other in zip(self.mutants, moved):
            if one["function"] != "Early":
                self.assertEqual((one["change"], one["chosen"]), (other["change"], other["chosen"]))

    def test_about_two_statements_of_three_have_one(self):
        text = "".join(f"int F{i}(int a) {{ return a < {i}; }}\n" for i in range(300))
        (self.root / "many.cpp").write_text(text)
        found = places.find(self.root / "many.cpp", ["-std=c++20"], self.root)[str(self.root / "many.cpp")]
        _, mutants = schemata.mutated(text, "many.cpp", found, 1)
        chosen = [mutant["change"] for mutant in mutants if mutant["chosen"]]
        self.assertTrue(170 < len(chosen) < 230, len(chosen))
        for kind in ("<=", "+ 1", "- 1"):
            self.assertTrue(40 < sum(kind in change for change in chosen) < 110, kind)

    def test_a_copy_of_the_chosen_has_no_others(self):
        found = places.find(self.root / "sample.cpp", ["-std=c++20"], self.root)
        text, mutants = schemata.mutated(SAMPLE, "sample.cpp", found[str(self.root / "sample.cpp")], 1, False)
        self.assertEqual(mutants, self.mutants)
        for mutant in mutants:
            self.assertEqual(mutant["chosen"], f"VYR_MUTANT({mutant['number']})" in text)

    @unittest.skipIf(shutil.which("c++") is None, "no compiler here")
    def test_one_build_acts_as_the_mutant_that_is_chosen(self):
        schemata.put(self.root / "mutation/mutant.h", (schemata.HERE / "mutant.h").read_text())
        (self.root / "mutated.cpp").write_text(self.text)
        (self.root / "main.cpp").write_text(MAIN)
        subprocess.run(["c++", "-std=c++20", "-I.", "mutated.cpp", "main.cpp", "-o", "sample"], cwd=self.root, check=True)

        def says(*words):
            return subprocess.run(["./sample", *map(str, words)], cwd=self.root, capture_output=True, text=True,
                                  check=True).stdout.split("\n")  # fmt: skip

        self.assertEqual(says(0), ["9 10", ""])
        self.assertEqual(says(self.number("break -> continue"))[0], "12 13")
        self.assertEqual(says(self.number("sum += values[i] -> sum -= values[i]"))[0], "-9 -8")
        self.assertEqual(says(self.number("return sum -> return 0"))[0], "0 10")
        reached = set(map(int, says(0, "note")[1].split()))
        self.assertIn(self.number("break -> continue"), reached)
        self.assertNotIn(self.number("out -> !(out)"), reached)
        self.assertNotIn(self.number("room[1] + calls -> room[1] - calls"), reached)


class TheList(unittest.TestCase):
    def read(self, text):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "equivalent.toml")
            path.write_text(text)
            return equivalents.read(path)

    ENTRY = '[[equivalent]]\nfile = "a.cpp"\nfunction = "F"\nmutants = ["x -> y"]\n'
    MUTANT = {"file": "a.cpp", "function": "F", "change": "x -> y"}

    def test_an_entry_explains_its_mutants(self):
        reasons = self.read(self.ENTRY + 'reason = "no one\n can tell"\n'.replace("\n ", " "))
        self.assertEqual(reasons.of(self.MUTANT), "no one can tell")
        self.assertTrue(reasons.lists(self.MUTANT))
        self.assertEqual(reasons.stale([self.MUTANT]), [])

    def test_a_line_without_its_mutant_is_stale(self):
        reasons = self.read(self.ENTRY + 'reason = "none"\n')
        self.assertEqual(reasons.stale([self.MUTANT | {"change": "x -> z"}]), ["a.cpp | F | x -> y"])

    RULE = '[[rule]]\nfile = "a.cpp"\nfunction = "F|G"\nchange = "x -> .*"\nreason = "none"\n'

    def test_a_rule_explains_what_it_fits_wholly(self):
        reasons = self.read(self.RULE)
        self.assertEqual(reasons.of(self.MUTANT), "none")
        self.assertFalse(reasons.lists(self.MUTANT))
        self.assertEqual(reasons.stale([self.MUTANT]), [])
        for other in ({"file": "b.cpp"}, {"function": "FG"}, {"change": "xx -> y"}):
            self.assertIsNone(reasons.of(self.MUTANT | other))
            self.assertEqual(reasons.stale([self.MUTANT | other]), ["a.cpp | F|G | x -> .* (rule)"])

    def test_a_wrong_list_is_refused(self):
        for text in (self.ENTRY, self.ENTRY + 'reason = ""\n', (self.ENTRY + 'reason = "one"\n') * 2, "[[", "[[rules]]",
                     self.RULE.replace("reason", "why"), self.RULE.replace("x ->", "(")):  # fmt: skip
            with self.assertRaises(equivalents.ListError):
                self.read(text)


class Verdicts(unittest.TestCase):
    BEGUN = "[ RUN      ] Suite.Name\n"

    def test_a_failure_a_crash_and_an_endless_loop_all_kill(self):
        failed = judge.verdict(1, self.BEGUN + "[  FAILED  ] Suite.Name (0 ms)\n")
        self.assertEqual((failed.killed, failed.by, failed.how), (True, "Suite.Name", "failed"))
        self.assertEqual(judge.verdict(-11, self.BEGUN).how, "crashed")
        self.assertEqual(judge.verdict(None, self.BEGUN).how, "endless")

    def test_results_hold_for_the_same_file_and_a_survivor_also_for_the_same_tests(self):
        with tempfile.TemporaryDirectory() as folder:
            results = judge.Results(pathlib.Path(folder, "results.json"))
            state = {"file": "f1", "tests": "t1"}
            results.put("killed", state | {"judges": 3}, judge.Outcome(True, "Suite.Name", "failed", 1))
            results.put("survivor", state | {"judges": 3}, judge.Outcome(False, met=3))
            results.put("half", state | {"judges": 3}, judge.Outcome(False, met=2))
            results.save()
            results = judge.Results(results.path)
            self.assertIsNotNone(results.get("killed", state | {"tests": "t2"}))
            self.assertIsNone(results.get("killed", state | {"file": "f2"}))
            self.assertIsNotNone(results.get("survivor", state))
            self.assertEqual([results.is_complete(name) for name in ("killed", "survivor", "half")], [True, True, False])
            self.assertIsNone(results.get("survivor", state | {"tests": "t2"}))

    def test_the_page_counts_by_folder(self):
        known = [({"file": "udp/a.cpp"}, "killed", {}), ({"file": "udp/b.cpp"}, "survived", {"met": 2, "judges": 2}),
                 ({"file": "udp/b.cpp"}, "survived", {"met": 1, "judges": 2}), ({"file": "abi/c.h"}, "equivalent", None)]  # fmt: skip
        page = summary.page(known, 9, {"unit_tests": 7}, 1)
        self.assertIn("Of the 9 mutants of `src/` these are the 4 that are judged by default\n(", page)
        self.assertIn("The judges were 7 tests of `unit_tests`.\n1 of the survivors have met the cheap tests only.", page)
        self.assertIn("| `udp` | 3 | 1 | 0 | 2 | 0 | 0 |\n", page)
        self.assertIn("| all | 4 | 1 | 1 | 2 | 0 | 0 |\n", page)
        self.assertIn("these are all.", summary.page(known, 4, {}, 1))


class Judging(unittest.TestCase):
    TESTS = [judge.Test("scenario_tests", "S.Cheap", 20, 900), judge.Test("unit_tests", "U.Wide", 5, 800),
             judge.Test("unit_tests", "U.Narrow", 9, 3), judge.Test("unit_tests", "U.Slow", 4000, 2),
             judge.Test("unit_tests", "U.Slower", 9000, 2)]  # fmt: skip

    def setUp(self):
        self.judge = judge.Judge({"unit_tests": "u", "scenario_tests": "s"}, None, 1, None)
        self.runs = []
        self.addCleanup(setattr, judge, "run", judge.run)
        judge.run = self.run_as_told

    def run_as_told(self, program, tests, environment, cpu_s, wall_s):
        self.runs.append(tests)
        return (1, f"[  FAILED  ] {self.fails}\n") if self.fails in tests else (0, "")

    def judged(self, fails, most_ms=None):
        self.fails = fails
        return self.judge.judge({"file": "a.cpp", "number": 5}, self.TESTS, most_ms)

    def test_cheap_and_narrow_tests_come_first_and_a_killer_before_them(self):
        self.assertFalse(self.judged(None).killed)
        self.assertEqual([name for tests in self.runs for name in tests],
                         ["U.Narrow", "U.Wide", "S.Cheap", "U.Slow", "U.Slower"])  # fmt: skip
        self.assertEqual((self.judged("S.Cheap").by, self.runs[-1]), ("S.Cheap", ["S.Cheap"]))
        self.runs.clear()
        self.judged(None)
        self.assertEqual(self.runs[0][0], "S.Cheap")

    def test_a_round_has_tests_for_its_time(self):
        for most_ms, met in ((1, 1), (20, 2), (50, 3), (4050, 4), (None, 5)):
            self.assertEqual(self.judged(None, most_ms).met, met, most_ms)
        passed = {"U.Narrow", "U.Wide"}
        self.runs.clear()
        self.assertEqual(self.judge.judge({"file": "a.cpp", "number": 5}, self.TESTS, 40, passed).met, 3)
        self.assertEqual(self.runs, [["S.Cheap"]])
        self.assertEqual(passed, {"U.Narrow", "U.Wide", "S.Cheap"})
        self.assertFalse(self.judged("U.Slower", 50).killed)
        self.assertTrue(self.judged("U.Slower").killed)


class Rounds(unittest.TestCase):
    MUTANTS = [{"file": "a.cpp", "line": 1, "function": "F", "change": f"x -> {i}", "number": i} for i in (1, 2, 3)]

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        (self.root / "src").mkdir()
        (self.root / "src/a.cpp").write_text("x")
        self.arguments = types.SimpleNamespace(again=False, mutant=[], check_list=False, jobs=1, minutes=None)
        self.met = []

    def run_of(self, kills=()):
        """A run whose tests take 800 ms each; number 1 is reached by none, the last test kills those of kills."""
        a_run = run.Run(self.arguments, self.root / "src", self.root / "build", equivalents.Reasons(), lambda text: None)
        tests = [judge.Test("unit_tests", f"U.{i}", 800, 1) for i in range(20)]
        a_run.court = judge.Judge({"unit_tests": "u"}, None, 1, None)
        a_run.court.reached_by = {2: tests, 3: tests}

        def told(program, names, environment, cpu_s, wall_s):
            number = int(environment["VYR_MUTANT"])
            self.met.append((number, len(names)))
            return (1, "[  FAILED  ] U.19\n") if number in kills and "U.19" in names else (0, "")

        self.addCleanup(setattr, judge, "run", judge.run)
        judge.run = told
        return a_run

    def judged(self, a_run):
        left = a_run.rounds([a_run.case(mutant) for mutant in self.MUTANTS], None)
        self.assertEqual(left, 0)
        return [a_run.status(mutant)[0] for mutant in self.MUTANTS]

    def test_all_have_a_first_turn_before_one_has_a_second_and_no_test_runs_twice(self):
        self.assertEqual(self.judged(self.run_of({3})), ["not reached", "survived", "killed"])
        turns = [number for i, (number, _) in enumerate(self.met) if i == 0 or self.met[i - 1][0] != number]
        self.assertEqual(turns, [2, 3, 2, 3, 2, 3])
        self.assertEqual([sum(count for number, count in self.met if number == one) for one in (2, 3)], [20, 20])

    def test_what_is_known_is_not_judged_again(self):
        self.judged(self.run_of({3}))
        self.met.clear()
        self.assertEqual(self.judged(self.run_of({3})), ["not reached", "survived", "killed"])
        self.assertEqual(self.met, [])
        (self.root / "src/a.cpp").write_text("y")
        self.judged(self.run_of())
        self.assertEqual(len({number for number, _ in self.met}), 2)


if __name__ == "__main__":
    if places.cindex is None:
        print("skipped: no libclang for Python here (Debian: python3-clang-14)")
        sys.exit(77)
    os.environ.pop("CPATH", None)
    unittest.main()
