#!/usr/bin/env bash
# Demonstrates the product on a fresh machine: installs what is missing, builds the library and a
# node, and runs them in a private network. An unmodified Windows program fetches a file: through a
# node, through another one when the first stops answering, and directly when both do. It sends a
# film as datagrams. A sample game plays on while its link goes bad and its flow moves to another
# node. Writes a page with the game's connections.
#
#   ./demo.sh          with 32-bit programs
#   ./demo.sh --x64    with 64-bit ones
#
# Exit: 0 if the programs did the same work with the library and without it, 1 otherwise.
set -u
cd "$(dirname "$0")" || exit 1
preset=windows-x86 bits=32 programs=()
case "${1:-}" in
  "") ;;
  --x64) preset=windows-x64 bits=64 programs=(--x64) ;;
  -h|--help) sed -n '2,11s/^# \{0,1\}//p' "$0"; exit 0 ;;
  *) echo "demo.sh: unknown argument '$1'; see --help" >&2; exit 2 ;;
esac

scripts/setup.sh || exit 1
if ! command -v wine >/dev/null 2>&1 || ! scripts/wine cmd /c ver >/dev/null 2>&1 ||
   { [ "$bits" = 64 ] && [ "$(scripts/wine --kind)" != win64 ]; }; then
  echo "demo.sh: Wine for $bits-bit programs is not available here" >&2
  exit 1
fi

printf 'fetching the third-party programs ... '
scripts/fetch_programs.sh "${programs[@]}" || exit 1
scripts/fetch_programs.sh --charts  # reports it if it cannot; the page then has no charts
echo done

log=build/$preset/demo.log
mkdir -p "build/$preset"
printf 'building the library, its programs and a native node ... '
if ! { cmake --preset "$preset" &&
       cmake --build --preset "$preset" \
         --target vyr_lsp winsock_host winsock_base vyr_run vyr_client vyr_game &&
       cmake --preset posix && cmake --build --preset posix --target vyr_node vyr_game
     } >"$log" 2>&1; then
  echo "FAILED; the end of $log:"
  tail -n 25 "$log"
  exit 1
fi
echo done

exec scripts/testbed python3 scripts/demo_inside.py "build/$preset" build/posix/bin
