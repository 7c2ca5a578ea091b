#!/usr/bin/env bash
# Makes a release from a clean clone: installs what is missing, builds both kinds with the presets
# release-x86 and release-x64, and writes into build/release (or FOLDER):
#
#   vyr-VERSION-windows.zip   DLLs, programs of both kinds, C header, examples, documents, notices
#   vyr-VERSION-symbols.zip   their debug symbols, by build id; docs/debugging.md says how to use them
#   vyr-VERSION-setup.exe     the installer package (packaging/README.md)
#   vyr-VERSION.spdx.json     the bill of materials, SPDX 2.3
#   SHA256SUMS                of the four
#
#   scripts/release.sh                       all of it
#   scripts/release.sh --out FOLDER          … into FOLDER, which must be empty or not exist
#   scripts/release.sh --no-setup            … without installing missing packages
#   scripts/release.sh --allow-changes       … although the tree has changes that are not committed
#   scripts/release.sh --check-reproducible  makes it twice in two folders and compares every byte
#
# The version is the one in CMakeLists.txt, and times in the results are that of the commit. Where
# there is no git repository, SOURCE_DATE_EPOCH and VYR_COMMIT say the time and the commit.
set -u
cd "$(dirname "$0")/.." || exit 1
complain() { echo "release: $*" >&2; exit 1; }

out=build/release setup=yes changes=no check=no
while [ $# -gt 0 ]; do
  case "$1" in
    -h|--help) sed -n '2,20s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --out) [ $# -ge 2 ] || complain "--out needs a folder"; out=$2; shift ;;
    --no-setup) setup=no ;;
    --allow-changes) changes=yes ;;
    --check-reproducible) check=yes ;;
    *) echo "scripts/release.sh: unknown option '$1'; see --help" >&2; exit 2 ;;
  esac
  shift
done

if [ -z "${SOURCE_DATE_EPOCH:-}" ] || [ -z "${VYR_COMMIT:-}" ]; then
  VYR_COMMIT=$(git rev-parse HEAD 2>/dev/null) && SOURCE_DATE_EPOCH=$(git log -1 --format=%ct) ||
    complain "this is no git repository; set SOURCE_DATE_EPOCH and VYR_COMMIT"
  if [ $changes = no ] && [ -n "$(git status --porcelain)" ]; then
    complain "there are changes that are not committed (--allow-changes releases them all the same)"
  fi
fi
export SOURCE_DATE_EPOCH VYR_COMMIT
if [ $setup = yes ]; then scripts/setup.sh || exit 1; fi
scripts/fetch_programs.sh --charts || complain "a release without the charts of its pages is not made"
command -v makensis >/dev/null 2>&1 || complain "no makensis here; run scripts/setup.sh"
if [ $check = yes ]; then exec scripts/check_reproducible.py --full; fi

parts=scripts/release_parts.py
version=$($parts version) || exit 1
if [ "$out" = build/release ]; then rm -rf "$out"; fi
[ -z "$(ls -A "$out" 2>/dev/null)" ] || complain "$out is not empty"
mkdir -p "$out" || exit 1
work=$(mktemp -d -t vyr-release.XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT

step() {  # what; command
  local what=$1 started=$SECONDS
  shift
  printf '%-48s ' "$what"
  if ! "$@" >"$work/log" 2>&1; then
    echo "FAILED"
    grep -nE 'error|FAILED|CMake Error' "$work/log" | head -n 20 >&2
    tail -n 25 "$work/log" >&2
    exit 1
  fi
  echo "done ($((SECONDS - started)) s)"
}
build() {
  cmake --preset "$1" && cmake --build --preset "$1" --target vyr_release &&
    cmake --install "build/$1" --prefix "$work/stage"
}
package() {
  $parts nsis "$work/stage" "$work/lists" &&
    makensis -V2 -NOCD "-DVERSION=$version" "-DLISTS=$work/lists" \
      "-DOUTPUT=$out/vyr-$version-setup.exe" packaging/vyr.nsi
}
for kind in x86 x64; do step "building for $kind" build release-$kind; done
step "following the documents' links" $parts links "$work/stage"
step "moving the symbols out" $parts split "$work/stage" "$work/symbols"
step "vyr-$version-windows.zip" $parts zip "$work/stage" "$out/vyr-$version-windows.zip" "vyr-$version"
step "vyr-$version-symbols.zip" $parts zip "$work/symbols" "$out/vyr-$version-symbols.zip" \
  "vyr-$version-symbols"
step "vyr-$version-setup.exe" package
step "vyr-$version.spdx.json" $parts sbom "$work/stage" "$out/vyr-$version.spdx.json" "$VYR_COMMIT"
step "SHA256SUMS" $parts sums "$out"
echo "The release is in $out:"
cat "$out/SHA256SUMS"
