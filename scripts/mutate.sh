#!/usr/bin/env bash
# Changes the product in thousands of places and asks the tests whether they notice; see --help, and
# tests/mutation/README.md.
exec python3 -B "$(dirname "$0")/../tests/mutation/mutate.py" "$@"
