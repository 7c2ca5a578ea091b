#!/usr/bin/env bash
# Installs the Debian packages that building and testing need. Idempotent, and silent when there is
# nothing to do. Wine is optional: without 32-bit or 64-bit Wine the Windows suites of that kind are
# left out, and test.sh says so.
#
#   scripts/setup.sh            install everything that is missing
#   scripts/setup.sh --check    list what is missing, install nothing (exit 1 if anything is)
set -u
cd "$(dirname "$0")/.." || exit 1

# The native build, the cross build and the test tools.
required=(
  build-essential cmake ninja-build ccache git ca-certificates python3
  libgtest-dev googletest libbenchmark-dev
  libtomlplusplus-dev libcli11-dev nlohmann-json3-dev libboost-dev
  g++-mingw-w64-i686-win32 g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-win32
  iproute2 util-linux
)
clang_runtime() {  # the name of the sanitizer runtime contains clang's version
  local version
  version=$(clang --version 2>/dev/null | sed -n 's/.*version \([0-9]*\)\..*/\1/p' | head -n 1)
  [ -n "$version" ] && echo "libclang-rt-$version-dev"
}

installed() {
  [ "$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null)" = "install ok installed" ]
}

missing() {
  local package
  for package in "$@"; do installed "$package" || echo "$package"; done
}

case "${1:-}" in
  -h|--help) sed -n '2,8s/^# \{0,1\}//p' "$0"; exit 0 ;;
  ""|--check) ;;
  *) echo "scripts/setup.sh: unknown option '$1'; see --help" >&2; exit 2 ;;
esac

# Optional: if one of these cannot be installed, the tests that need it report that and are left out.
wanted=(wine wine32:i386 wine64 clang llvm clang-format clang-tidy socat haproxy libnginx-mod-stream chromium tshark
  python3-prometheus-client python3-pyte python3-matplotlib python3-clang-14 nsis)
command -v npm >/dev/null 2>&1 || wanted+=(npm)
runtime=$(clang_runtime)
wanted+=("${runtime:-libclang-rt-14-dev}")

mapfile -t need < <(missing "${required[@]}")
mapfile -t want < <(missing "${wanted[@]}")
if [ $((${#need[@]} + ${#want[@]})) -eq 0 ]; then exit 0; fi
if [ "${1:-}" = --check ]; then printf '%s\n' "${need[@]}" "${want[@]}"; exit 1; fi

if ! command -v apt-get >/dev/null 2>&1; then
  echo "setup: no apt-get here; install the equivalents of these packages: ${need[*]} ${want[*]}" >&2
  exit 1
fi
if [ "$(id -u)" != 0 ]; then
  echo "setup: packages are missing and this user may not install them. Run once:" >&2
  echo "  sudo $PWD/scripts/setup.sh" >&2
  [ ${#need[@]} -eq 0 ] && exit 0
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
log=$(mktemp -t vyr-setup.XXXXXX.log)
apt=(apt-get -y -q -o Dpkg::Use-Pty=0 --no-install-recommends)

# Only the base suite: if an update suite on a mirror is not in step, the amd64 and i386 packages of
# one name differ in version, and dpkg refuses such a pair.
base_suite_only() {
  local codename list
  codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
  [ -n "$codename" ] || return 1
  list=$(mktemp -t vyr-base.XXXXXX.list)
  apt-cache policy | sed -n "s|^ *[0-9]* \(https\{0,1\}://[^ ]*\) $codename/\([a-z]*\) .*|deb \1 $codename \2|p" |
    sort -u >"$list"
  [ -s "$list" ] || return 1
  apt+=(-o "Dir::Etc::sourcelist=$list" -o Dir::Etc::sourceparts=- --allow-downgrades)
  apt-get -q update -o "Dir::Etc::sourcelist=$list" -o Dir::Etc::sourceparts=- >>"$log" 2>&1
}

install() {
  "${apt[@]}" install "$@" >>"$log" 2>&1 && return 0
  base_suite_only && "${apt[@]}" install "$@" >>"$log" 2>&1
}

if printf '%s\n' "${want[@]}" | grep -q ':i386$' && [ "$(dpkg --print-architecture)" = amd64 ]; then
  dpkg --add-architecture i386
fi
echo "setup: installing $((${#need[@]} + ${#want[@]})) packages (log: $log)"
apt-get -q update >>"$log" 2>&1 || echo "setup: a package index could not be fetched completely; continuing"

if [ ${#need[@]} -gt 0 ] && ! install "${need[@]}"; then
  echo "setup: these could not be installed: $(missing "${need[@]}" | tr '\n' ' ')" >&2
  tail -n 15 "$log" >&2
  exit 1
fi
# A benchmark starts nginx itself. The package also brings a web server for the whole machine, which
# is not wanted: masked, its service starts neither now nor later.
unit=/etc/systemd/system/nginx.service
if printf '%s\n' "${want[@]}" | grep -q nginx && ! installed nginx &&
   [ -d "${unit%/*}" ] && [ ! -e "$unit" ] && [ ! -L "$unit" ]; then
  ln -s /dev/null "$unit"
  echo "setup: nginx is for a benchmark; its service is masked ('systemctl unmask nginx' undoes that)"
fi
for package in "${want[@]}"; do
  install "$package" || echo "setup: $package cannot be installed here; what needs it is left out"
done
