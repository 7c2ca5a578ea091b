#!/bin/bash
# Runs the fuzz targets for as long as you like: scripts/fuzz.sh --minutes 10 [TARGET...]. See --help.
exec python3 -B "$(dirname "$0")/fuzz.py" "$@"
