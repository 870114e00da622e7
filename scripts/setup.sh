#!/usr/bin/env bash
# Installs what the build, the tests and the samples need on Debian 12.
# Safe to run again: packages are installed only when missing. With
# KIV_TRY_WINE32=1 it also tries to make 32-bit Wine available for the i686
# tests; that may fail without failing the set-up.
# Writes build/wine32.status: "usable" or "unavailable".
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
mkdir -p "$ROOT/build"
STATUS_FILE="$ROOT/build/wine32.status"

PACKAGES=(
  cmake ninja-build g++ clang libclang-rt-14-dev
  # import libraries for Microsoft's linker, and a linker to check them with
  llvm lld pkgconf zip unzip
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  g++-mingw-w64-i686-posix g++-mingw-w64-x86-64-posix mingw-w64-tools binutils-mingw-w64-i686
  binutils-mingw-w64-x86-64
  wine wine64 xvfb xauth x11-utils pulseaudio pulseaudio-utils ffmpeg
  # overlay text tests and the sample draw with a family Wine finds through fontconfig
  fonts-dejavu-core procps coreutils file
)

SUDO=()
if [ "$(id -u)" -ne 0 ]; then SUDO=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
APT_OPTS=(-y -q -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold --no-install-recommends)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

missing=()
for p in "${PACKAGES[@]}"; do installed "$p" || missing+=("$p"); done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  "${SUDO[@]}" apt-get update -q
  "${SUDO[@]}" apt-get install "${APT_OPTS[@]}" "${missing[@]}"
else
  echo "setup: all native packages present"
fi

# 32-bit Wine. The i686 build is what ships, so run its tests when possible.
wine32_usable() { [ -x /usr/lib/wine/wine ] && installed "wine32:i386"; }

if wine32_usable; then
  echo usable > "$STATUS_FILE"
elif [ -z "${KIV_TRY_WINE32:-}" ]; then
  # Debian's i386 package indexes are broken on the mirror these machines use,
  # so trying costs minutes for nothing; KIV_TRY_WINE32=1 tries anyway.
  echo unavailable > "$STATUS_FILE"
  echo "setup: 32-bit Wine not tried (KIV_TRY_WINE32=1 tries to install it)"
else
  echo "setup: trying to install 32-bit Wine"
  added_arch=0
  if ! dpkg --print-foreign-architectures | grep -qx i386; then
    "${SUDO[@]}" dpkg --add-architecture i386
    added_arch=1
  fi
  # A partly failed update (one index mid-sync) may still allow the install.
  timeout 600 "${SUDO[@]}" apt-get update -q || echo "setup: apt-get update failed with i386 enabled"
  timeout 900 "${SUDO[@]}" apt-get install "${APT_OPTS[@]}" wine32:i386 || echo "setup: wine32 install failed"
  if wine32_usable; then
    echo usable > "$STATUS_FILE"
  else
    echo unavailable > "$STATUS_FILE"
    if [ $added_arch = 1 ]; then
      # Leave apt as we found it so later installs keep working.
      "${SUDO[@]}" dpkg --remove-architecture i386 || true
      "${SUDO[@]}" apt-get update -q || true
    fi
  fi
fi
echo "setup: wine32 $(cat "$STATUS_FILE")"
