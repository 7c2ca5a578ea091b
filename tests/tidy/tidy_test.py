#!/usr/bin/env python3
"""Each rule finds what it should find, and accepts the rest."""
import contextlib
import io
import pathlib
import sys
import tempfile
import unittest

import architecture
import bans
import cpp
import glossary
import layers
import notices
import oddities
import published
import readmes
import records
import security
import sizes
import style
import tidy
import tree
import workflows

PROSE = "It owns what stands in it " + "and so on " * 10


def findings(rule, files):
    with tempfile.TemporaryDirectory() as root:
        for path, text in files.items():
            file = pathlib.Path(root, path)
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_text(text)
        found = [f for _, some in rule.check(tree.Tree(root)) for f in some]
    return [str(f) for f in found]


class Sources(unittest.TestCase):
    def test_comments_and_literals_are_told_from_code(self):
        text = 'int a;  // new\nf("new // x", \'"\');  /* new\nnew */ g(1\'000, "\\"new");\n'
        blanked = cpp.blank(text, literals=True)
        self.assertNotIn("new", blanked)
        self.assertEqual(blanked.count("\n"), text.count("\n"))
        self.assertEqual(len(blanked), len(text))
        self.assertIn("1'000", blanked)
        self.assertIn('"new // x"', cpp.blank(text, literals=False))

    def test_raw_strings_are_literals(self):
        self.assertNotIn("new", cpp.blank('auto s = R"x(new " )y")x"; int a;', literals=True))
        self.assertIn("int a", cpp.blank('auto s = R"x(new " )y")x"; int a;', literals=True))

    def test_includes_keep_their_names(self):
        code = cpp.blank('#include "a/b.h"\n#include <vector>\n// #include "no.h"\n', literals=True)
        self.assertEqual(list(cpp.includes(code)), [(1, "a/b.h", True), (2, "vector", False)])


class Layers(unittest.TestCase):
    def check(self, includes):
        files = {f"src/{path}": "".join(f'#include "{i}"\n' for i in some)
                 for path, some in includes.items()}
        return findings(layers, files)

    def test_downwards_is_right(self):
        self.assertEqual(self.check({
            "common/log.h": [], "route/route.h": ["common/log.h"],
            "relay/sets.h": ["route/route.h"], "stream/tcp.h": ["relay/sets.h", "common/log.h"],
            "udp/udp.h": ["relay/sets.h", "udp/flow.h"], "udp/flow.h": [],
            "engine/relay_mgr.h": ["stream/tcp.h", "udp/udp.h"],
            "hooks/hook.cpp": ["engine/relay_mgr.h", "common/log.h"]}), [])

    def test_upwards_and_sideways_are_not(self):
        for includer, included in [
                ("common/log.h", "route/route.h"), ("route/route.cpp", "tracker/tracker.h"),
                ("tracker/tracker.h", "quality/lost.h"), ("quality/lost.h", "stream/tcp.h"),
                ("relay/sets.h", "stream/tcp.h"), ("stream/tcp.cpp", "udp/udp.h"),
                ("udp/udp.h", "engine/relay_mgr.h"), ("engine/relay_mgr.cpp", "icmp/vm.h"),
                ("hooks/hook.h", "start/gate.h")]:
            found = self.check({includer: [included], included: []})
            self.assertEqual(
                found, [f"src/{includer}:1: includes {included}, which is not in a lower layer"])

    def test_a_circle_is_found(self):
        found = self.check({"route/a.h": ["route/b.h"], "route/b.h": ["route/c.h"],
                            "route/c.h": ["route/a.h"]})
        self.assertEqual(len(found), 1)
        self.assertIn("includes itself: src/route/a.h -> src/route/b.h -> src/route/c.h -> "
                      "src/route/a.h", found[0])

    def test_strangers_are_found(self):
        self.assertIn("not a file of src/", self.check({"common/a.h": ["port/sim/sim.h"]})[0])
        self.assertIn("without a layer", self.check({"misc/a.h": []})[0])
        found = findings(layers, {"src/common/a.h": "#include <common/b.h>\n",
                                  "src/common/b.h": ""})
        self.assertIn("use quotes", found[0])

    def test_the_port_does_not_know_the_product(self):
        files = {"src/common/log.h": "", "port/sim/sim.h": '#include "common/log.h"\n'}
        self.assertEqual(findings(layers, files),
                         ["port/sim/sim.h:1: includes common/log.h of the product"])


class Bans(unittest.TestCase):
    def test_each_is_found(self):
        for line in ["#ifdef _WIN32", "#if defined(__linux__)", "#elif __GNUC__ > 3",
                     "std::mutex m;", "std::thread t;", "std::lock_guard<M> g(m);",
                     "std::condition_variable_any c;", "std::filesystem::path p;",
                     "std::cout << 1;", 'printf("x");', "#include <mutex>", "#include <iostream>",
                     "#include <filesystem>", "X* x = new X;", "return new (std::nothrow) X;",
                     "f(new X(1));", "delete x;", "delete[] x;", "free(x);", "malloc(3);",
                     'LSP_LOG(4, "%ws", x);', 'f("%-20ws");', 'sprintf(b, "x");', "strcpy(a, b);",
                     "using namespace std;", "// TODO: later", "/* FIXME */",
                     "// see Part" + " 2.1", "// as the speci" + "fication says", "// issue" + " 3",
                     'f("/home' + '/me/x");']:
            found = findings(bans, {"src/route/a.cpp": "int a;\n" + line + "\n"})
            self.assertEqual(len(found), 1, line)
            self.assertTrue(found[0].startswith("src/route/a.cpp:2: "), found)

    def test_what_only_looks_like_it_passes(self):
        for line in ["X(const X&) = delete;", "void operator delete(void*);", "// a new socket",
                     'f("delete new std::mutex");', "std::unique_ptr<X>(new X);",
                     "p.reset(new (std::nothrow) X);", "static X& x = *new X;",
                     "static X* const x = new X;", "new (storage) X;", "#include <new>",
                     "renew(x);", "snprintf(a, b, c);", "my_mutex.lock();", "#ifdef NDEBUG",
                     'f("%s");', "s.free_slots();", "using namespace std::chrono_literals;",
                     "// std::mutex is lacking", "// https://example.org/home" + "/x", "special();",
                     "// Partly 1.2"]:
            self.assertEqual(findings(bans, {"src/route/a.cpp": line + "\n"}), [], line)

    def test_words_are_banned_everywhere_and_constructs_in_the_product_only(self):
        self.assertEqual(findings(bans, {"port/posix/a.cpp": "std::mutex m;\n"}), [])
        self.assertEqual(len(findings(bans, {"scripts/a.sh": "# TODO\n"})), 1)
        self.assertEqual(len(findings(bans, {"README.md": "see Part" + " 3.4\n"})), 1)


RECORD = """#pragma pack(push, 1)
// A record; with a brace { in its comment.
struct A {
  enum { kX };
  static constexpr int kN = 3;
  A() = default;
  int Sum() const { return a + b; }
  u32 a = 0, b = 0;
  char text[kN][4] = {};
  std::array<u8, 4> list{};
  B inner;
};
#pragma pack(pop)
"""


class Records(unittest.TestCase):
    def check(self, text):
        return findings(records, {"src/route/a.h": text})

    def test_every_field_wants_its_offset_and_the_record_its_size(self):
        found = [f.split(": ", 1)[1] for f in self.check(RECORD)]
        self.assertEqual(found, ["A: no assertion on its size"] +
                         [f"A.{n}: no assertion on its offset"
                          for n in ["a", "b", "text", "list", "inner"]])
        self.assertTrue(self.check(RECORD)[0].startswith("src/route/a.h:3: "))

    def test_a_full_set_passes(self):
        said = "static_assert(sizeof(A) == 1);\n" + "".join(
            f"static_assert(offsetof(A, {n}) == 0);\n" for n in ["a", "b", "text", "list"])
        self.assertEqual(len(self.check(RECORD + said)), 1)
        joined = said + "static_assert(sizeof(B) == 4 &&\n offsetof(ns::A, inner) == 9);\n"
        self.assertEqual(self.check(RECORD + joined), [])

    def test_an_assertion_in_a_comment_says_nothing(self):
        text = "#pragma pack(push, 1)\nstruct A { int a; };\n#pragma pack(pop)\n"
        self.assertEqual(len(self.check(
            text + "// static_assert(sizeof(A) == 4 && offsetof(A, a) == 0);\n")), 2)

    def test_unpacked_records_are_free(self):
        self.assertEqual(self.check("#pragma pack(push, 1)\n#pragma pack(pop)\nstruct A { int a; };"),
                         [])

    def test_pragmas_go_in_pairs(self):
        self.assertIn("in pairs", self.check("#pragma pack(1)\n")[0])
        self.assertIn("without", self.check("#pragma pack(push, 1)\n")[0])


class Architecture(unittest.TestCase):
    SOURCES = {
        "src/a/README.md": "# a: the ground\n\ntext", "src/a/a.h": 'f("vyr_x_share_mem");',
        "src/b/b.h": '#include "a/a.h"\n', "src/c/c.h": "",
        "src/c/c.cpp": '#include "b/b.h"\n#include "a/a.h"\nint WSPAPI WSPSend(int s) {}\n',
    }
    DRAWING = architecture.draw_architecture

    def test_folders_come_from_the_tree_and_arrows_that_follow_are_left_out(self):
        drawn = self.DRAWING.draw(self.SOURCES).split("\n")
        self.assertIn('    a["<b>a</b><br/>the ground"]', drawn)
        self.assertIn('    b["<b>b</b>"]', drawn)
        self.assertEqual([line.strip() for line in drawn if "-->" in line],
                         ["game -- socket calls --> c", "b --> a", "c --> b"])
        self.assertIn("  a <-. shared memory .-> client", drawn)

    def test_folders_that_include_one_another_show_it(self):
        sources = dict(self.SOURCES, **{"src/a/b.h": '#include "b/b.h"\n'})
        self.assertIn("  a --> b", self.DRAWING.draw(sources).split("\n"))

    def test_a_picture_of_another_tree_is_found(self):
        readme = f"before\n{self.DRAWING.BEGIN}\nold\n{self.DRAWING.END}\nafter\n"
        self.assertEqual(findings(architecture, dict(self.SOURCES, **{"README.md": readme})), [
            "README.md: its picture differs from the tree: run scripts/draw_architecture.py"])
        right = self.DRAWING.replaced(readme, self.DRAWING.draw(self.SOURCES))
        self.assertTrue(right.startswith("before\n") and right.endswith("\nafter\n"))
        self.assertEqual(findings(architecture, dict(self.SOURCES, **{"README.md": right})), [])


class Glossary(unittest.TestCase):
    def check(self, named):
        return findings(glossary, {
            "docs/glossary.md": f"| word | meaning of `Nothing` | where |\n| a | b | {named} |\n",
            "src/route/route.h": "class Route { int first_; };\n"})

    def test_what_is_there_passes(self):
        self.assertEqual(self.check("`Route`, `Route::first_`, `route.h`, `src/route`, `rou*.h`"), [])

    def test_what_is_not_there_is_found(self):
        for named in ["Rout", "Route::second_", "ruote.h", "src/rout", "x*.h"]:
            self.assertEqual(self.check(f"`{named}`"),
                             [f"docs/glossary.md:2: no such file or name: {named}"])


class Oddities(unittest.TestCase):
    SOURCE = "int a;  // Kept: the first word\n// Says much. Guard: against\n// all of it.\n"
    REGISTER = ("## Kept\n\n| mark | what | who | test |\n|---|---|---|---|\n"
                "| `a.h` \"the first\" | x | y | `Suite.One`, `Suite.Two` |\n"
                "## Guard\n\n| `a.h` \"against all of\" | x | y | none |\n")
    TESTS = "TEST_F(Suite, One) {\nSCENARIO_F_SEEDS(Suite, Two, 4) {\n"

    def check(self, source=SOURCE, register=REGISTER, tests=TESTS):
        files = {"src/route/a.h": source, "tests/unit/a_test.cpp": tests}
        if register is not None:
            files["docs/oddities.md"] = register
        return findings(oddities, files)

    def test_each_mark_with_its_row_and_its_tests_is_right(self):
        self.assertEqual(self.check(), [])
        self.assertEqual(self.check("int a;\n", None), [])

    def test_a_mark_without_a_row_is_found(self):
        found = self.check(self.SOURCE + "// Kept: another\n")
        self.assertEqual(found, ["src/route/a.h:4: has 0 rows instead of one in docs/oddities.md: "
                                 "Kept: another"])
        self.assertIn("is missing, and src/ has 2 marks", self.check(register=None)[0])

    def test_a_row_stands_for_one_mark_of_its_own_kind(self):
        again = '| `a.h` "the first word" | x | y | none |\n'
        self.assertIn("has 2 rows", self.check(
            register=self.REGISTER.replace("## Guard", again + "## Guard"))[0])
        self.assertEqual(len(self.check(register=self.REGISTER.replace("## Guard", "## Notes"))), 2)

    def test_a_row_without_a_mark_is_found(self):
        self.assertIn('docs/oddities.md:5: no such mark: a.h "the first"', self.check(
            self.SOURCE.replace("first", "second")))

    def test_a_test_that_does_not_exist_is_found(self):
        self.assertEqual(self.check(tests="TEST_F(Suite, One) {\n"),
                         ["docs/oddities.md:5: no such test: Suite.Two"])
        self.assertIn("no such test: somewhere",
                      self.check(register=self.REGISTER.replace("none", "somewhere"))[0])

    def test_what_is_mended_has_a_row_with_tests_and_a_name_for_files(self):
        fields = 'constexpr MendingName k[] = {\n{"all", kMendAll},\n{"half", kMendHalf},\n};\n'

        def check(rows, offered=fields):
            return findings(oddities, {"src/route/a.h": self.SOURCE,
                                       "tests/unit/a_test.cpp": self.TESTS,
                                       "docs/oddities.md": rows + self.REGISTER,
                                       "src/abi/mending_names.h": offered})

        self.assertEqual(check("| `half` | a | b | c | `Suite.One` |\n"), [])
        self.assertIn("no row for what is mended as 'half'", check("")[0])
        self.assertIn("no such test: Suite.Three",
                      check("| `half` | a | b | c | `Suite.Three` |\n")[0])
        self.assertIn("no test for 'half'", check("| `half` | a | b | c | none |\n")[0])
        self.assertIn("cannot ask for 'half'", check("| `half` | a | b | c | `Suite.One` |\n", "")[0])

    def test_a_files_own_short_form_of_a_scenario_names_a_test(self):
        tests = ("TEST_F(Suite, One) {\n"
                 "#define SCENARIO_WRAP(name, ms) SCENARIO_WITH_(Suite, name, Suite, 1, In(ms))\n"
                 "SCENARIO_WRAP(Two, 1050) {\n")
        self.assertEqual(self.check(tests=tests), [])

    def test_odd_spellings_are_found(self):
        for line in ["int b;  // kept: so", "// and so it stays. Kept.", "// guard: so"]:
            found = self.check(self.SOURCE + line + "\n")
            self.assertEqual(found, ["src/route/a.h:4: a mark is written 'Kept: what' or "
                                     "'Guard: what'"], line)
        self.assertEqual(self.check(self.SOURCE + "// the guard of a lock, kept for later\n"), [])

    def test_a_row_that_cannot_be_read_is_found(self):
        self.assertIn("not a row", self.check(
            register=self.REGISTER + "| `a.h` no quotes | x | y | none |\n")[0])


class Security(unittest.TestCase):
    HEAD = "| way in | can | stops | does not | tests |\n|---|---|---|---|---|\n"
    FILES = {"src/udp/a.cpp": "void Refuse() {}\n", "tests/unit/a_test.cpp": "TEST(Suite, One) {\n",
             "tests/windows/b.py": ""}

    def check(self, *rows):
        return findings(security, {**self.FILES, "docs/security.md": self.HEAD + "".join(r + "\n" for r in rows)})

    def test_rows_with_guards_and_tests_that_exist_are_right(self):
        self.assertEqual(self.check("| a | b | `a.cpp: Refuse` and more | c | `Suite.One`, `tests/windows/b.py` |",
                                    "| a | b | nothing | c | none |"), [])

    def test_what_does_not_exist_is_found(self):
        for cells, found in [("`a.cpp: Ref` | c | none", "no such guard: a.cpp: Ref"),
                             ("`b.cpp: Refuse` | c | none", "no such guard: b.cpp: Refuse"),
                             ("b | c | `Suite.Two`", "no such test: Suite.Two"),
                             ("b | c | `tests/windows/c.py`", "no such test: tests/windows/c.py"),
                             ("b | c | later", "names no test, and does not say none"),
                             ("b | none", "has 4 cells instead of 5")]:
            self.assertEqual(self.check(f"| a | b | {cells} |"), [f"docs/security.md:3: {found}"], cells)


class Published(unittest.TestCase):
    ROOT = pathlib.Path(__file__).resolve().parents[2]

    def check(self, path="", old="", new=""):
        names = [*published.make_regions_header.FILES, published.make_regions_header.HEADER,
                 published.make_regions_header.KSY, published.DOCUMENT]
        files = {name: (self.ROOT / name).read_text(encoding="utf-8") for name in names}
        if path:
            self.assertIn(old, files[path])
            files[path] = files[path].replace(old, new, 1)
        return findings(published, files)

    def test_what_the_script_makes_passes(self):
        self.assertEqual(self.check(), [])

    def test_an_edited_header_is_found(self):
        found = self.check("include/vyr_regions.h", "uint64_t game_id;", "uint64_t game;")
        self.assertEqual(len(found), 1)
        self.assertIn("include/vyr_regions.h: differs", found[0])

    def test_a_renamed_field_of_a_record_is_found(self):
        found = self.check("src/abi/proxy_formats.h", "u32 section2_lost", "u32 lost_behind")
        self.assertEqual(len(found), 2)

    def test_a_region_without_its_row_in_the_document_is_found(self):
        for text in ("| 131364 |", "`vyr_mending_named_mutex` | 336", "32 of 984"):
            found = self.check(published.DOCUMENT, text, "| x |")
            self.assertEqual(len(found), 1)
            self.assertIn("docs/regions.md: has no row", found[0])


class Readmes(unittest.TestCase):
    def check(self, readme):
        files = {"src/README.md": PROSE, "src/route/a.h": ""}
        if readme is not None:
            files["src/route/README.md"] = readme
        return findings(readmes, files)

    def test_one_paragraph_is_right_under_a_heading_too(self):
        self.assertEqual(self.check(PROSE), [])
        self.assertEqual(self.check("# route\n\n" + PROSE), [])

    def test_none_or_two_or_a_word_are_not(self):
        self.assertIn("is missing", self.check(None)[0])
        self.assertIn("has 2 paragraphs", self.check(PROSE + "\n\n" + PROSE)[0])
        self.assertIn("says too little", self.check("Routes.")[0])

    def test_folders_without_code_want_one_and_may_say_more(self):
        self.assertEqual(findings(readmes, {"tests/unit/a.cpp": "", "tests/unit/README.md":
                                            PROSE + "\n\n" + PROSE, "tests/README.md": PROSE}), [])
        self.assertEqual(len(findings(readmes, {"tests/unit/a.cpp": ""})), 2)
        self.assertEqual(findings(readmes, {"fuzz/corpus/a/b": "", "fuzz/README.md": PROSE,
                                            ".ci/run": ""}), [])

    def test_the_roots_want_one_too(self):
        self.assertIn("port/README.md: is missing",
                      findings(readmes, {"port/sim/a.h": "", "port/sim/README.md": PROSE})[0])


class Notices(unittest.TestCase):
    ALL = "\n".join(notices.third_party.heading(c) for c in notices.third_party.COMPONENTS)

    def check(self, link, headers="toml++ CLI", text=ALL):
        return findings(notices, {
            "THIRD-PARTY-NOTICES": f"\n{text}\n",
            "cmake/headers.cmake": f"foreach(name {headers})\n  f(/usr/include/${{name}})\nendforeach()\n",
            "devkit/CMakeLists.txt": f"add_library(own a.cpp)\ntarget_link_libraries(program PRIVATE {link})\n"})

    def test_what_is_ours_the_systems_or_listed_may_be_linked(self):
        self.assertEqual(self.check("own ws2_32"), [])

    def test_what_is_linked_or_staged_has_to_be_listed(self):
        self.assertIn("names curl", self.check("own curl")[0])
        self.assertIn("names fmt", self.check("own", headers="CLI fmt")[0])

    def test_what_is_listed_has_its_notice(self):
        self.assertIn("no notice of uPlot", self.check("own", text=self.ALL.replace("uPlot: MIT", ""))[0])


class Workflows(unittest.TestCase):
    FIRST = "# This cannot be run here.\n"
    JOBS = "jobs:\n  a:\n    steps:\n      - run: {}\n"

    def check(self, run, first=FIRST):
        return findings(workflows, {
            ".github/workflows/a.yml": first + self.JOBS.format(run),
            "CMakePresets.json": '{"configurePresets": [{"name": "sim"}]}', "scripts/a.sh": "",
            "CMakeLists.txt": "add_library(vyr_core a.cpp)\nvyr_test_suite(unit 2 vyr_core)\n"})

    def test_names_of_what_exists_are_right(self):
        self.assertEqual(self.check("scripts/a.sh && cmake --build --preset sim --target vyr_core unit_tests"), [])

    def test_names_of_nothing_are_found(self):
        self.assertIn("preset posix", self.check("cmake --preset posix")[0])
        self.assertIn("target vyr", self.check("cmake --build --preset sim --target vyr_core vyr")[0])
        self.assertIn("scripts/b.sh", self.check("scripts/b.sh --quiet")[0])
        self.assertIn("test.sh", self.check("./test.sh")[0])

    def test_it_says_first_that_it_was_never_run(self):
        self.assertIn("does not begin", self.check("scripts/a.sh", first="# Runs everywhere.\n")[0])

    def test_it_is_yaml_with_steps(self):
        self.assertTrue(self.check("scripts/a.sh\n\t- run: scripts/a.sh"))


class Driver(unittest.TestCase):
    def run_rules(self, rules, files):
        with tempfile.TemporaryDirectory() as root:
            for path, text in files.items():
                file = pathlib.Path(root, path)
                file.parent.mkdir(parents=True, exist_ok=True)
                file.write_text(text)
            out = io.StringIO()
            failed = tidy.run(rules, tree.Tree(root), out)
        return failed, out.getvalue().splitlines()

    def test_long_files_are_a_warning(self):
        failed, lines = self.run_rules([sizes], {"src/a/a.cpp": "int a;\n" * 301})
        self.assertEqual(failed, 0)
        self.assertEqual(lines, ["src/a/a.cpp: warning: has 301 lines, more than 300",
                                 "1 passed, 0 failed"])

    def test_a_long_function_of_the_product_is_an_error(self):
        def lines_of(count, head="int A::f(int a) const noexcept"):
            return head + " {\n" + "  a = 1;\n" * (count - 2) + "}\n"

        self.assertEqual(findings(sizes, {"src/a/a.cpp": lines_of(48)}), [])
        long = "namespace a {\n\n// text\n" + lines_of(49) + "\n}\n"
        self.assertEqual(findings(sizes, {"src/a/a.cpp": long, "port/a/a.cpp": long}),
                         ["src/a/a.cpp:4: a function of 49 lines, more than 48"])
        for head in ("A::A(int a)\n    : b_(a)", "auto f(\n    int a) -> int", "void f() noexcept try",
                     'void f(char a = \'{\', const char* b = "}")'):
            self.assertEqual(len(findings(sizes, {"src/a/a.cpp": lines_of(60, head)})), 1, head)
        for head in ("struct A final", "namespace a", "enum class A : int"):
            self.assertEqual(findings(sizes, {"src/a/a.cpp": lines_of(60, head)}), [], head)

    def test_counts_and_closes(self):
        failed, lines = self.run_rules([readmes], {"src/README.md": PROSE, "src/a/a.h": ""})
        self.assertEqual(failed, 1)
        self.assertEqual(lines[-1], "1 passed, 1 failed")

    @unittest.skipIf(style.formatter() is None, "no formatter here")
    def test_layout_is_checked(self):
        found = findings(style, {".clang-format": "BasedOnStyle: Google\n",
                                 "a.cpp": "int a;\nint   b;\n", "b.cpp": "int a;\n"})
        self.assertEqual(found, ["a.cpp:2: differs from clang-format's layout"])


def main():
    with contextlib.redirect_stdout(sys.stderr):
        result = unittest.main(exit=False, verbosity=1).result
    bad = len(result.failures) + len(result.errors)
    skipped = len(result.skipped)
    print(f"{result.testsRun - bad - skipped} passed, {bad} failed, {skipped} skipped")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
