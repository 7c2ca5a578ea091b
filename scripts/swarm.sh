#!/usr/bin/env bash
# Runs random worlds in which everything happens at once (tests/scenario/whole_swarm_test.cpp), for
# as many simulated hours as are asked for.
#
#   scripts/swarm.sh --hours N [--long] [--seed S] [--jobs J] [--no-build]
#
#   --hours N    simulated hours, all worlds together
#   --long       worlds of long play, which are quiet for most of their two to twelve hours,
#                instead of those of forty seconds
#   --seed S     the first seed; 1 if it is not given
#   --jobs J     processes at a time; 1 if it is not given
#   --no-build   takes build/sim-release as it is, or build/posix for long play
#
# Says every few seconds how far it is and how fast. The first failure ends the run: its output has
# the fewest faults that still fail, and the command that runs exactly these. Exit code: 0 nothing
# failed, 1 a world failed, 2 wrong arguments or no build.
set -u
usage() { sed -n '2,16s/^# \{0,1\}//p' "$0"; }
hours="" seed=1 jobs=1 build=yes suite=WholeSwarm worlds=20  # a process runs so many
preset=sim-release program=scenario_tests
while [ $# -gt 0 ]; do
  case "$1" in
    -h|--help) usage; exit 0 ;;
    --no-build) build=no; shift; continue ;;
    --long) suite=LongPlay worlds=4 preset=posix program=long_play; shift; continue ;;
    --hours|--seed|--jobs) ;;
    *) echo "swarm.sh: what is $1?" >&2; usage >&2; exit 2 ;;
  esac
  if ! [[ "${2:-}" =~ ^[0-9]+(\.[0-9]+)?$ ]]; then
    echo "swarm.sh: $1 needs a number" >&2
    exit 2
  fi
  case "$1" in
    --hours) hours=$2 ;;
    --seed) seed=$2 ;;
    --jobs) jobs=$2 ;;
  esac
  shift 2
done
if [ -z "$hours" ]; then usage >&2; exit 2; fi

here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$here" || exit 2
if [ "$build" = yes ]; then
  { cmake --preset $preset >/dev/null && cmake --build --preset $preset --target $program; } ||
    { echo "swarm.sh: cannot build" >&2; exit 2; }
fi
tests=build/$preset/tests/$program
[ -x "$tests" ] || { echo "swarm.sh: $tests is not there; leave out --no-build" >&2; exit 2; }

work=$(mktemp -d -t vyr-swarm.XXXXXX) || exit 2
trap 'rm -rf "$work"' EXIT
begin=$(date +%s.%N)
simulated=0 done_worlds=0 next=$seed
while :; do
  pids=() files=()
  for ((job = 0; job < jobs; job++)); do
    file=$work/$next
    VYR_SWARM_FIRST=$next VYR_SWARM_SEEDS=$worlds "$tests" \
      --gtest_filter="$suite.*" >"$file" 2>&1 &
    pids+=($!) files+=("$file")
    next=$((next + worlds))
  done
  failed=""
  for job in "${!pids[@]}"; do
    wait "${pids[$job]}" || failed=${failed:-${files[$job]}}
  done
  if [ -n "$failed" ]; then
    cat "$failed"
    echo "swarm.sh: a world failed, after $done_worlds that did not" >&2
    exit 1
  fi
  for file in "${files[@]}"; do
    simulated=$(awk -v sum="$simulated" '/^swarm: /{sum += $6} END{print sum}' "$file")
  done
  done_worlds=$((done_worlds + worlds * jobs))
  rm -f "$work"/*
  awk -v s="$simulated" -v h="$hours" -v b="$begin" -v e="$(date +%s.%N)" -v w="$done_worlds" \
    -v n="$next" 'BEGIN {
      printf "swarm: %d worlds up to seed %d, %.2f of %s simulated hours, %.3f simulated hours a second\n", w, n - 1, s / 3600, h, s / 3600 / (e - b)
      exit !(s / 3600 >= h)
    }' && break
done
echo "swarm: nothing failed"
