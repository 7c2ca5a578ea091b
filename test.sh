#!/usr/bin/env bash
# Runs all tests on a fresh machine: installs what is missing, builds every preset, runs every suite,
# and prints the number of tests.
#
#   ./test.sh                 everything
#   ./test.sh sim posix       only these presets (sim, posix, posix-tsan, windows-x86, windows-x64; and
#                             fuzz, whose tests sim has as well)
#   ./test.sh --no-setup …    without installing missing packages
#
# Logs are kept in build/PRESET/{build,test}.log. Exit: 0 all passed, 1 something failed.
set -u
cd "$(dirname "$0")" || exit 1

presets=(sim posix posix-tsan windows-x86 windows-x64)
setup=yes
chosen=()
for argument in "$@"; do
  case "$argument" in
    -h|--help) sed -n '2,11s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --no-setup) setup=no ;;
    sim|posix|posix-tsan|fuzz|windows-x86|windows-x64) chosen+=("$argument") ;;
    *) echo "test.sh: unknown argument '$argument'; see --help" >&2; exit 2 ;;
  esac
done
[ ${#chosen[@]} -gt 0 ] && presets=("${chosen[@]}")
if [ $setup = yes ]; then scripts/setup.sh || exit 1; fi
case " ${presets[*]} " in *windows-x86*) scripts/fetch_programs.sh ;; esac
case " ${presets[*]} " in *windows-x64*) scripts/fetch_programs.sh --x64 ;; esac
scripts/fetch_programs.sh --charts  # reports it if it cannot; pages then have no charts

left_out=()
failed=no
results=()

# As many compilers as there are processors: two more, as the build tool would have it, cost a tenth of the time.
build() {  # preset; its targets, by default all
  local preset=$1 log=build/$1/build.log
  shift
  mkdir -p "build/$preset"
  local started=$SECONDS
  printf '%-12s building %s... ' "$preset" "${*:+${#} targets }"
  if cmake --preset "$preset" >"$log" 2>&1 &&
     cmake --build --preset "$preset" --parallel "$(nproc)" ${*:+--target} "$@" >>"$log" 2>&1; then
    echo "done ($((SECONDS - started)) s)"
    return 0
  fi
  echo "FAILED; the end of $log:"
  grep -nE 'error|FAILED|undefined reference|CMake Error' "$log" | head -n 20
  tail -n 25 "$log"
  failed=yes
  return 1
}

run_suites() {  # preset, and how much nicer than others
  local preset=$1 jobs began=$SECONDS code
  jobs=$(nproc)
  case "$preset" in posix|windows-*) jobs=$((jobs + 1)) ;; esac  # they wait more than they compute
  nice -n "${2:-0}" ctest --preset "$preset" --verbose --parallel "$jobs" >"build/$preset/test.log" 2>&1
  code=$?
  echo $((SECONDS - began)) >"build/$preset/test.seconds"
  return $code
}

report() {  # preset, the exit code of its suites
  local log=build/$1/test.log
  results+=("$log")
  printf '%-12s testing  ... %s\n' "$1" "$(scripts/count_tests.py "$log") ($(cat "build/$1/test.seconds") s)"
  if [ "$2" != 0 ]; then
    failed=yes
    scripts/count_tests.py --failures "$log"
  fi
}

# The suites of the simulation only compute, in a time of their own; those under Wine mostly wait. So the
# former run beside the latter, and after them in the scheduler's eyes.
start_simulation() {
  set -m  # a process group of its own, so that whoever ends this ends it as well
  run_suites sim 10 &
  simulation=$!
  set +m
}

report_simulation() {
  local code
  wait "$simulation"
  code=$?
  simulation=
  report sim $code
}

wine_works() {  # preset, which has been built
  local program=vyr_run.exe
  [ "$1" = windows-x64 ] && program=vyr_run64.exe
  command -v wine >/dev/null 2>&1 && scripts/wine "build/$1/bin/$program" --help >/dev/null 2>&1
}

# The Windows suites also run native nodes, and the suites for 64-bit programs also run 32-bit ones.
# These have been built before, unless only this preset was requested.
build_companions() {  # preset
  case "$1" in windows-*) build posix vyr_node vyr_game || return ;; esac
  if [ "$1" = windows-x64 ]; then
    build windows-x86 vyr_lsp winsock_host winsock_base vyr_run vyr_client vyr_game vyr_setup by_name \
      trial_setup
  fi
}

built=()
for preset in "${presets[@]}"; do
  build "$preset" || continue
  case "$preset" in windows-*)
    if ! wine_works "$preset"; then
      bits=32
      [ "$preset" = windows-x64 ] && bits=64
      left_out+=("the $preset suites ($bits-bit Wine is not available here; they are built, not run)")
      continue
    fi
    build_companions "$preset" || continue ;;
  esac
  built+=("$preset")
done

simulation=
trap '[ -z "$simulation" ] || kill -- "-$simulation"' EXIT
for preset in ${built[@]+"${built[@]}"}; do
  case "$preset ${built[*]}" in "sim "*windows-*) start_simulation; continue ;; esac
  run_suites "$preset"
  report "$preset" $?
done
[ -z "$simulation" ] || report_simulation

for reason in ${left_out[@]+"${left_out[@]}"}; do echo "left out: $reason"; done
[ ${#results[@]} -gt 0 ] || { echo "no suite ran" >&2; exit 1; }
scripts/count_tests.py "${results[@]}"
[ $failed = no ]
