#!/usr/bin/env bash
# Makes the two Windows ZIPs with cpack, each holding the install tree
# (bin/kivcapture.dll, the import libraries, include/, lib/cmake/kivcapture/),
# the README, the API reference and the samples' source:
#   kivcapture-6.0.6-win32.zip   from build/ci-i686 (the shipped 32-bit build)
#   kivcapture-6.0.6-win64.zip   from build/ci-x64
# A build folder that does not exist yet is configured; only the library is
# built. The ZIPs go to build/packages/ (KIV_PACKAGE_OUT to change it).
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
OUT="${KIV_PACKAGE_OUT:-$ROOT/build/packages}"
mkdir -p "$OUT"

for pair in "ci-i686:i686" "ci-x64:x86_64"; do
  dir="$ROOT/build/${pair%%:*}"
  arch="${pair#*:}"
  if [ ! -f "$dir/CMakeCache.txt" ]; then
    cmake -S "$ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-mingw-$arch.cmake" >/dev/null
  fi
  cmake --build "$dir" -j "${KIV_JOBS:-2}" --target kivcapture >/dev/null
  cpack -G ZIP --config "$dir/CPackConfig.cmake" -B "$OUT" >/dev/null
done
rm -rf "$OUT/_CPack_Packages"
ls -1 "$OUT"/kivcapture-*.zip
