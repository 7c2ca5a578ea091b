#!/usr/bin/env python3
"""Checks the tree against its own rules.

usage: tidy.py [--format] [ROOT]

Include directions, the picture of them in README.md, banned constructs, the names in the glossary,
the registers of oddities and of ways in, what is published for other languages, the notices of others' work,
workflows, a README in each folder, assertions on packed records, sizes of files and functions; with
--format, the layout of every C++ file instead. Prints one line, FILE:LINE: MESSAGE, for each finding,
and at the end "N passed, N failed"; a check is one rule on one file. Exit: 0 all passed, 1 something
failed, 77 no clang-format here.
"""
import argparse
import pathlib
import sys

import architecture
import bans
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
import tree
import workflows

RULES = [layers, architecture, bans, glossary, notices, oddities, published, readmes, records, security, sizes,
         workflows]


def run(rules, files, out=sys.stdout):
    """The number of checks that failed."""
    passed = failed = 0
    for rule in rules:
        for _, findings in rule.check(files):
            for finding in findings:
                print(finding, file=out)
            if all(f.warning for f in findings):
                passed += 1
            else:
                failed += 1
    print(f"{passed} passed, {failed} failed", file=out)
    return failed


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--format", action="store_true", help="check the layout instead")
    parser.add_argument("root", nargs="?", default=pathlib.Path(__file__).resolve().parents[2],
                        metavar="ROOT", help="the tree, by default the one with this script")
    arguments = parser.parse_args()
    if arguments.format and style.formatter() is None:
        print(f"skipped: no clang-format {style.VERSION} here")
        return 77
    rules = [style] if arguments.format else RULES
    return 1 if run(rules, tree.Tree(arguments.root)) else 0


if __name__ == "__main__":
    sys.exit(main())
