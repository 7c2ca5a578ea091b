#!/usr/bin/env python3
"""The mutants of a made-up file: which are found, which places are left out, what a copy does when one of
them acts, and what the list of equivalent mutants says. Exit: 77 no libclang for Python here."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

import equivalents
import judge
import places
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
        self.assertEqual(reasons[equivalents.key_of(self.MUTANT)], "no one can tell")
        self.assertEqual(equivalents.stale(reasons, [self.MUTANT]), [])

    def test_a_line_without_its_mutant_is_stale(self):
        reasons = self.read(self.ENTRY + 'reason = "none"\n')
        self.assertEqual(equivalents.stale(reasons, [self.MUTANT | {"change": "x -> z"}]), ["a.cpp | F | x -> y"])

    def test_a_wrong_list_is_refused(self):
        for text in (self.ENTRY, self.ENTRY + 'reason = ""\n', (self.ENTRY + 'reason = "one"\n') * 2, "[["):
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
            results.put("killed", state, judge.Outcome(True, "Suite.Name", "failed"))
            results.put("survivor", state, judge.Outcome(False))
            results.save()
            results = judge.Results(results.path)
            self.assertIsNotNone(results.get("killed", state | {"tests": "t2"}))
            self.assertIsNone(results.get("killed", state | {"file": "f2"}))
            self.assertIsNotNone(results.get("survivor", state))
            self.assertIsNone(results.get("survivor", state | {"tests": "t2"}))

    def test_the_page_counts_by_folder(self):
        page = summary.page([({"file": "udp/a.cpp"}, "killed"), ({"file": "udp/b.cpp"}, "survived"),
                             ({"file": "abi/c.h"}, "equivalent")], {"unit_tests": 7}, 1)  # fmt: skip
        self.assertIn("The judges were 7 tests of `unit_tests`.", page)
        self.assertIn("| `udp` | 2 | 1 | 0 | 1 | 0 | 0 |\n", page)
        self.assertIn("| all | 3 | 1 | 1 | 1 | 0 | 0 |\n", page)


if __name__ == "__main__":
    if places.cindex is None:
        print("skipped: no libclang for Python here (Debian: python3-clang-14)")
        sys.exit(77)
    os.environ.pop("CPATH", None)
    unittest.main()
