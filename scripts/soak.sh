#!/usr/bin/env bash
# Plays for as long as you like with the library, and says whether anything in the game's process
# grows: descriptors, threads, handles, views, memory, processor time, flows without a last report.
#
#   scripts/soak.sh --minutes N [--json FILE] [--picture FILE.svg] [--mended all|none] [--seed S]
#                   [--build FOLDER]
#   scripts/soak.sh --wine --minutes N [the same] [--windows FOLDER] [--leak-every N]
#                   [--calm N]
#
# Runs in the private network of scripts/testbed, with the programs of build/posix. With --wine the game and its
# neighbours are Windows programs, with the DLL, of build/windows-x86; every N-th socket of a game with --leak-every
# stays open, and one with --calm pauses N times as long. docs/soak.md says what happens in a run and how it is
# judged. Exit code: 0 flat, 1 something grows or went wrong, 2 wrong arguments, 3 Wine's own server ended before the
# time was over, and what there was is flat, 77 this machine does not allow private networks, or has no Wine. A run
# whose Python program gets SIGTERM ends its programs, and is judged by what it has.
set -u
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
program=soak.py rest=()
for argument in "$@"; do
  case "$argument" in
    -h|--help) sed -n '2,17s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --wine) program=soak_wine.py ;;
    *) rest+=("$argument") ;;
  esac
done
exec "$here/testbed" python3 -B "$here/$program" ${rest[@]+"${rest[@]}"}
