#!/usr/bin/env bash
# Runs a Windows executable under Wine: CMake's cross-compiling emulator for
# the MinGW builds, so ctest runs every test through it.
#   wine-run.sh program.exe [args...]
# The build folder (for the private prefix) is KIV_BUILD_DIR, else the nearest
# parent of the executable holding CMakeCache.txt. KIV_WINE_TIMEOUT (seconds,
# default 600) bounds the run.
set -uo pipefail
HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
# shellcheck source=wine-env.sh
source "$HERE/wine-env.sh"

[ $# -ge 1 ] || { echo "usage: wine-run.sh program.exe [args...]" >&2; exit 2; }
exe="$(readlink -f "$1")"; shift
[ -f "$exe" ] || { echo "wine-run: no such file: $exe" >&2; exit 2; }

build="${KIV_BUILD_DIR:-}"
if [ -z "$build" ]; then
  dir="$(dirname "$exe")"
  while [ "$dir" != "/" ] && [ ! -f "$dir/CMakeCache.txt" ]; do dir="$(dirname "$dir")"; done
  if [ -f "$dir/CMakeCache.txt" ]; then build="$dir"; else build="$(dirname "$exe")"; fi
fi

arch="$(kiv_pe_arch "$exe")"
kiv_wine_prepare "$build" "$arch" || exit 1

# Wine's helper processes (services.exe, winedevice.exe, ...) outlive the
# program and inherit its standard handles. Writing through a file instead of
# the caller's pipe keeps ctest from waiting on them until its timeout.
out="$(mktemp "${TMPDIR:-/tmp}/kiv-wine-out.XXXXXX")"
run_once() {
  kiv_clean timeout --kill-after=15 "${KIV_WINE_TIMEOUT:-600}" "$KIV_WINE_LOADER" "$exe" "$@" </dev/null >"$out" 2>&1
}
run_once "$@"
rc=$?
cat "$out"
# Debian's Wine 8 now and then dies of SIGSEGV inside one of its own system
# calls while a process exits, after the program has finished its work (a
# jump into freed Unix heap; seen in about one run in twenty under load).
# When a GoogleTest program had already reported every test passed, that
# crash is Wine's: run the program once more and let that run decide.
if [ $rc -eq 139 ] && grep -q '^\[  PASSED  \]' "$out" && ! grep -q '^\[  FAILED  \]' "$out"; then
  echo "wine-run: Wine crashed (SIGSEGV) after every test had passed; running once more: $exe" >&2
  run_once "$@"
  rc=$?
  cat "$out"
fi
rm -f "$out"
[ $rc -eq 124 ] && echo "wine-run: timed out after ${KIV_WINE_TIMEOUT:-600}s: $exe" >&2
exit $rc
