#!/usr/bin/env bash
# Measures which lines and branches of src/ the tests run, and checks the list of those they do not.
# `scripts/coverage.sh --help` has the options.
cd "$(dirname "$0")/.." || exit 1
exec /usr/bin/python3 -B tests/coverage "$@"
