#!/usr/bin/env bash
# Checks what an application gets from the builds in build/ci-native,
# build/ci-x64 and build/ci-i686 (the library must be built there):
#  - the install tree (build/install-<cfg>) holds exactly the expected files;
#  - the CMake package's version rule (6.x, at least 6.0.6, same pointer size);
#  - tests/consumer, configured on its own with find_package(kivcapture 6),
#    builds and runs natively and under Wine (x86_64); the i686 build is
#    linked and its imports checked (undecorated KIV_ names);
#  - samples/minimal.c builds with pkg-config (native) and with the plain
#    MinGW command lines against the unpacked ZIPs;
#  - kivcapture.lib links a caller as Microsoft's linker does (lld-link);
#  - docs/api.md documents exactly the exported functions, and lists the
#    other functions of the header under "## Not yet available";
#  - the DLLs carry the version resource 6.0.6;
#  - scripts/package.sh makes both ZIPs and they unpack to the install trees.
# Prints "PASS: <check>" or "FAIL: <check>" for each and "N passed, N failed".
# KIV_PACKAGE_CONFIGS limits the configurations (default "native x64 i686").
set -uo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="$ROOT/build"
CONFIGS="${KIV_PACKAGE_CONFIGS:-native x64 i686}"
VERSION=6.0.6
PASSED=0
FAILED=0
WORK="$(mktemp -d "${TMPDIR:-/tmp}/kiv-package.XXXXXX")"

pass() { echo "PASS: $1"; PASSED=$((PASSED + 1)); }
fail() { echo "FAIL: $1"; FAILED=$((FAILED + 1)); }
# check NAME command...: runs the command, shows its output's tail on failure.
check() {
  local name=$1 out
  shift
  if out=$("$@" 2>&1); then pass "$name"; else fail "$name"; echo "$out" | tail -25 | sed 's/^/    /'; fi
}
has_config() { [[ " $CONFIGS " == *" $1 "* ]]; }
build_dir() { echo "$BUILD/ci-$1"; }
triple() { case $1 in x64) echo x86_64-w64-mingw32 ;; i686) echo i686-w64-mingw32 ;; esac; }
toolchain() { case $1 in x64) echo "$ROOT/cmake/toolchain-mingw-x86_64.cmake" ;; i686) echo "$ROOT/cmake/toolchain-mingw-i686.cmake" ;; esac; }
library_of() { if [ "$1" = native ]; then echo "$2/lib/libkivcapture.so"; else echo "$2/bin/kivcapture.dll"; fi; }

# Sorted, unique names, one a line.
header_functions() { sed -n 's/^KIV_API .* KIV_CALL \(KIV_[A-Za-z0-9]*\)(.*/\1/p' "$ROOT/include/kivcapture.h" | sort -u; }
documented_available() { sed '/^## Not yet available/,$d' "$ROOT/docs/api.md" | sed -n 's/^### `\(KIV_[A-Za-z0-9]*\)`.*/\1/p' | sort -u; }
documented_later() { sed -n '/^## Not yet available/,$p' "$ROOT/docs/api.md" | sed -n 's/^- `\(KIV_[A-Za-z0-9]*\)`.*/\1/p' | sort -u; }
exports_of() {
  local lib=$1 cfg=$2
  if [ "$cfg" = native ]; then
    nm -D --defined-only "$lib" | awk '{print $NF}' | grep '^KIV_' | sort -u
  else
    "$(triple "$cfg")-objdump" -p "$lib" |
      awk '/\[Ordinal\/Name Pointer\] Table/{on=1; next} on && /^[ \t]*\[ *[0-9]+\]/{print $NF; next} on && NF==0{on=0}' | sort -u
  fi
}
imports_from_kivcapture() {
  "$1" -p "$2" | awk '/DLL Name: kivcapture.dll/{on=1; next} /DLL Name:/{on=0} on && NF==3 && $3 ~ /^KIV_/{print $3}' | sort -u
}
# Functions a C source calls.
called_in() { grep -o 'KIV_[A-Z][A-Za-z0-9]*(' "$1" | tr -d '(' | sort -u; }
same_lists() { # same_lists WHAT LEFT-NAME LEFT RIGHT-NAME RIGHT
  local only_left only_right
  only_left=$(comm -23 <(echo "$3") <(echo "$5") | grep . | tr '\n' ' ')
  only_right=$(comm -13 <(echo "$3") <(echo "$5") | grep . | tr '\n' ' ')
  [ -z "$only_left$only_right" ] && return 0
  [ -n "$only_left" ] && echo "$1: only in $2: $only_left"
  [ -n "$only_right" ] && echo "$1: only in $4: $only_right"
  return 1
}

# ---- the reference against the header and a library --------------------
docs_match_header() {
  local available later header
  available=$(documented_available); later=$(documented_later); header=$(header_functions)
  [ "$(echo "$header" | grep -c .)" -eq 80 ] || { echo "header declares $(echo "$header" | grep -c .) functions"; return 1; }
  local both
  both=$(comm -12 <(echo "$available") <(echo "$later") | grep . | tr '\n' ' ')
  [ -z "$both" ] || { echo "both available and not yet available: $both"; return 1; }
  same_lists "reference" "docs/api.md" "$(printf '%s\n%s\n' "$available" "$later" | grep . | sort -u)" "the header" "$header" || return 1
  # A name the header does not declare is a typo or a leftover.
  local stray
  stray=$(comm -23 <(sed 's/KIV_Create\.\.\.//g' "$ROOT/docs/api.md" | grep -o 'KIV_[A-Z][a-z][A-Za-z0-9]*' | sort -u) \
    <(echo "$header") | grep . | tr '\n' ' ')
  [ -z "$stray" ] || { echo "docs/api.md names functions the header does not declare: $stray"; return 1; }
}
docs_match_exports() { # LIBRARY CFG
  local exports
  exports=$(exports_of "$1" "$2")
  [ -n "$exports" ] || { echo "no exports found in $1"; return 1; }
  same_lists "documented as available vs exported" "docs/api.md" "$(documented_available)" "$(basename "$1")" "$exports"
}

# ---- version resource -----------------------------------------------------
version_resource() { # DLL
  local dll=$1 key value
  for key in FileVersion ProductVersion ProductName FileDescription; do
    value=$(strings -el "$dll" | grep -A1 -x "$key" | sed -n 2p)
    case $key in
      *Version) [ "$value" = "$VERSION" ] || { echo "$key is '$value'"; return 1; } ;;
      *) [ -n "$value" ] || { echo "$key missing"; return 1; } ;;
    esac
  done
  # VS_FIXEDFILEINFO: signature 0xFEEF04BD, structure version, then the file
  # and product versions as 32-bit pairs (major<<16|minor, patch<<16|build).
  local at words
  at=$(LC_ALL=C grep -obUaP '\xBD\x04\xEF\xFE' "$dll" | head -1 | cut -d: -f1)
  [ -n "$at" ] || { echo "no VS_FIXEDFILEINFO"; return 1; }
  words=$(od -An -tx4 -j $((at + 8)) -N 16 "$dll" | xargs)
  [ "$words" = "00060000 00060000 00060000 00060000" ] || { echo "fixed file info versions: $words"; return 1; }
}

# ---- install tree -----------------------------------------------------------
expected_files() { # CFG
  local common="include/kivcapture.h lib/cmake/kivcapture/kivcaptureConfig.cmake
    lib/cmake/kivcapture/kivcaptureConfigVersion.cmake lib/cmake/kivcapture/kivcaptureTargets.cmake
    lib/cmake/kivcapture/kivcaptureTargets-relwithdebinfo.cmake"
  if [ "$1" = native ]; then
    echo $common lib/libkivcapture.so lib/pkgconfig/kivcapture.pc | tr ' ' '\n'
  else
    echo $common bin/kivcapture.dll lib/libkivcapture.dll.a lib/kivcapture.def lib/kivcapture.lib README.md docs/api.md |
      tr ' ' '\n'
    (cd "$ROOT" && git ls-files samples | grep .) || (cd "$ROOT" && find samples -type f)
  fi
}
install_tree() { # CFG PREFIX
  rm -rf "$2"
  cmake --install "$(build_dir "$1")" --prefix "$2" --strip >/dev/null || return 1
  same_lists "install tree" "$2" "$(cd "$2" && find . -type f | sed 's|^\./||' | sort)" "expected" "$(expected_files "$1" | sort -u)"
}

version_rule() { # PREFIX: which requests the package's version file accepts
  local file="$1/lib/cmake/kivcapture/kivcaptureConfigVersion.cmake" script="$WORK/version.cmake"
  cat >"$script" <<EOF
set(cases "6:8:TRUE" "6.0:8:TRUE" "6.0.6:8:TRUE" "6.0.7:8:FALSE" "6.1:8:FALSE" "5:8:FALSE" "7:8:FALSE" "6:4:FALSE")
foreach(case IN LISTS cases)
  string(REPLACE ":" ";" parts "\${case}")
  list(GET parts 0 PACKAGE_FIND_VERSION)
  list(GET parts 1 CMAKE_SIZEOF_VOID_P)
  list(GET parts 2 want)
  string(REPLACE "." ";" numbers "\${PACKAGE_FIND_VERSION}.0.0")
  list(GET numbers 0 PACKAGE_FIND_VERSION_MAJOR)
  list(GET numbers 1 PACKAGE_FIND_VERSION_MINOR)
  list(GET numbers 2 PACKAGE_FIND_VERSION_PATCH)
  set(PACKAGE_VERSION_COMPATIBLE FALSE)
  set(PACKAGE_VERSION_UNSUITABLE FALSE)
  include("$file")
  set(got \${PACKAGE_VERSION_COMPATIBLE})
  if(PACKAGE_VERSION_UNSUITABLE)
    set(got FALSE)
  endif()
  if(NOT got STREQUAL want)
    message(FATAL_ERROR "request \${PACKAGE_FIND_VERSION} with \${CMAKE_SIZEOF_VOID_P}-byte pointers: \${got}, want \${want}")
  endif()
endforeach()
EOF
  cmake -P "$script"
}

# ---- consumer -----------------------------------------------------------------
consumer_build() { # CFG PREFIX DIR
  local args=(-G Ninja -DCMAKE_BUILD_TYPE=Release "-DCMAKE_PREFIX_PATH=$2")
  [ "$1" != native ] && args+=("-DCMAKE_TOOLCHAIN_FILE=$(toolchain "$1")")
  rm -rf "$3"
  cmake -S "$ROOT/tests/consumer" -B "$3" "${args[@]}" >"$3.log" 2>&1 || { cat "$3.log"; return 1; }
  cmake --build "$3" >>"$3.log" 2>&1 || { cat "$3.log"; return 1; }
}
# run_program CFG EXE [args]: natively, or under Wine in the x64 build's prefix.
run_program() {
  local cfg=$1
  shift
  if [ "$cfg" = native ]; then
    (cd "$(dirname "$1")" && "$@")
  else
    (cd "$(dirname "$1")" && KIV_BUILD_DIR="$(build_dir x64)" "$ROOT/scripts/wine-run.sh" "$@")
  fi
}
consumer_runs() { # CFG DIR
  local out
  out=$(run_program "$1" "$2/kiv_consumer${3:-}" | tr -d '\r') || { echo "$out"; return 1; }
  echo "$out" | grep -qx 'consumer ok' || { echo "$out"; return 1; }
}
minimal_runs() { # CFG EXE
  local out
  out=$(run_program "$1" "$2" minimal-check.mp4 | tr -d '\r') || { echo "$out"; return 1; }
  echo "$out" | grep -q 'cropped frames seen: 60 of 60, 320x180' || { echo "$out"; return 1; }
}
imports_are_plain() { # CFG EXE SOURCE
  local imports
  imports=$(imports_from_kivcapture "$(triple "$1")-objdump" "$2")
  same_lists "imports from kivcapture.dll" "$(basename "$2")" "$imports" "$(basename "$3")" "$(called_in "$3")"
}
minimal_with_pkg_config() { # PREFIX OUT
  local flags
  flags=$(PKG_CONFIG_PATH="$1/lib/pkgconfig" pkg-config --cflags --libs kivcapture) || return 1
  [ "$(PKG_CONFIG_PATH="$1/lib/pkgconfig" pkg-config --modversion kivcapture)" = "$VERSION" ] || return 1
  cc -std=c11 -Wall -Wextra -Werror -O2 "$ROOT/samples/minimal.c" $flags -Wl,-rpath,"$1/lib" -o "$2" || return 1
  minimal_runs native "$2"
}
minimal_with_mingw() { # CFG TREE OUT
  mkdir -p "$(dirname "$3")"
  "$(triple "$1")-gcc" -std=c11 -Wall -Wextra -Werror -O2 "$2/samples/minimal.c" -I"$2/include" -L"$2/lib" -lkivcapture \
    -o "$3" || return 1
  cp "$2/bin/kivcapture.dll" "$(dirname "$3")/"
  imports_are_plain "$1" "$3" "$2/samples/minimal.c" || return 1
  if [ "$1" = x64 ]; then minimal_runs x64 "$3"; fi
}
# lld-link, as Microsoft's linker, links an object compiled for the MSVC ABI
# against lib/kivcapture.lib; the x86_64 program also runs.
msvc_import_library() { # CFG PREFIX
  local target machine dir="$WORK/msvc-$1"
  case $1 in x64) target=x86_64-pc-windows-msvc; machine=x64 ;; i686) target=i686-pc-windows-msvc; machine=x86 ;; esac
  mkdir -p "$dir"
  clang --target=$target -ffreestanding -O2 -I"$2/include" -c "$ROOT/tests/consumer/msvc_link.c" -o "$dir/msvc_link.obj" || return 1
  lld-link /nologo /entry:start /subsystem:console /nodefaultlib /machine:$machine "$dir/msvc_link.obj" \
    "$2/lib/kivcapture.lib" /out:"$dir/msvc_link.exe" || return 1
  imports_are_plain "$1" "$dir/msvc_link.exe" "$ROOT/tests/consumer/msvc_link.c" || return 1
  if [ "$1" = x64 ]; then
    cp "$2/bin/kivcapture.dll" "$dir/"
    run_program x64 "$dir/msvc_link.exe" || { echo "msvc_link.exe exited with $?"; return 1; }
  fi
}

# ---- ZIPs ------------------------------------------------------------------------
zip_matches_tree() { # ZIP NAME PREFIX
  local dir="$WORK/unzip-$2"
  rm -rf "$dir"; mkdir -p "$dir"
  [ -f "$1" ] || { echo "$1 missing"; return 1; }
  (cd "$dir" && cmake -E tar xf "$1") || return 1
  [ -d "$dir/$2" ] || { echo "the ZIP has no top folder $2"; ls "$dir"; return 1; }
  diff -r -x kivcapture.dll "$dir/$2" "$3" && same_dll "$dir/$2/bin/kivcapture.dll" "$3/bin/kivcapture.dll"
}
# Two strips of one DLL differ only in the PE header's time stamp and check sum.
same_dll() {
  local pe offset
  [ "$(stat -c %s "$1")" = "$(stat -c %s "$2")" ] || { echo "$1 and $2 differ in size"; return 1; }
  pe=$(od -An -tu4 -j 60 -N 4 "$1" | xargs)
  while read -r offset _; do
    offset=$((offset - 1))
    if [ $offset -ge $((pe + 8)) ] && [ $offset -lt $((pe + 12)) ]; then continue; fi
    if [ $offset -ge $((pe + 88)) ] && [ $offset -lt $((pe + 92)) ]; then continue; fi
    echo "$1 and $2 differ at byte $offset"; return 1
  done < <(cmp -l "$1" "$2" 2>&1)
}

trap 'rm -rf "$WORK"' EXIT

check "reference lists the header's 80 functions, each once" docs_match_header
for cfg in native x64 i686; do
  has_config "$cfg" || continue
  dir=$(build_dir "$cfg")
  prefix="$BUILD/install-$cfg"
  consumer="$BUILD/consumer-$cfg"
  if ! check "$cfg: install tree holds exactly the expected files" install_tree "$cfg" "$prefix"; then
    continue
  fi
  library=$(library_of "$cfg" "$prefix")
  check "$cfg: documented functions are the exported ones" docs_match_exports "$library" "$cfg"
  if [ "$cfg" = native ]; then
    check "native: package accepts 6.x requests from 6.0.6 on, same pointer size" version_rule "$prefix"
    check "native: consumer builds with find_package(kivcapture 6)" consumer_build native "$prefix" "$consumer" &&
      check "native: consumer and minimal sample run" eval 'consumer_runs native "$consumer" && minimal_runs native "$consumer/kiv_minimal"'
    check "native: minimal.c builds with pkg-config and runs" minimal_with_pkg_config "$prefix" "$WORK/minimal-pc"
    continue
  fi
  check "$cfg: DLL carries version resource $VERSION" version_resource "$library"
  if check "$cfg: consumer builds with find_package(kivcapture 6)" consumer_build "$cfg" "$prefix" "$consumer"; then
    check "$cfg: consumer imports plain KIV_ names from kivcapture.dll" \
      imports_are_plain "$cfg" "$consumer/kiv_consumer.exe" "$ROOT/tests/consumer/consumer.c"
    if [ "$cfg" = x64 ]; then
      check "x64: consumer and minimal sample run under Wine" \
        eval 'consumer_runs x64 "$consumer" .exe && minimal_runs x64 "$consumer/kiv_minimal.exe"'
    fi
  fi
  check "$cfg: kivcapture.lib links a caller with Microsoft's linker" msvc_import_library "$cfg" "$prefix"
done

if has_config x64 && has_config i686; then
  zips="$BUILD/packages"
  rm -f "$zips"/kivcapture-*.zip
  if check "scripts/package.sh makes both ZIPs" env KIV_PACKAGE_OUT="$zips" "$ROOT/scripts/package.sh"; then
    for pair in win32:i686 win64:x64; do
      name="kivcapture-$VERSION-${pair%%:*}"; cfg=${pair#*:}
      check "$name.zip unpacks to the $cfg install tree" zip_matches_tree "$zips/$name.zip" "$name" "$BUILD/install-$cfg"
      tree="$WORK/unzip-$name/$name"
      check "$name.zip: documented functions are the DLL's exports" docs_match_exports "$tree/bin/kivcapture.dll" "$cfg"
      check "$name.zip: minimal.c builds with the MinGW command line" \
        minimal_with_mingw "$cfg" "$tree" "$WORK/minimal-$cfg/minimal.exe"
    done
  fi
fi

echo "$PASSED passed, $FAILED failed"
[ "$FAILED" -eq 0 ]
