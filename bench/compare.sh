#!/usr/bin/env bash
# Measures everything that bench/ measures in one run and compares it with the run before.
# `bench/compare.sh --help` has the options.
cd "$(dirname "$0")/.." || exit 1
# The system's own Python is the one for which the plotting library is packaged.
exec /usr/bin/python3 -B bench/compare "$@"
