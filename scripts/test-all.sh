#!/usr/bin/env bash
# The project's test command: sets the machine up, then builds and tests every
# configuration and prints a summary per stage. Exits non-zero when any stage
# fails. The last line is "N passed, N failed" over all tests of all stages
# (each fuzz target and each checked DLL counts as one test).
#
# Stages: native (RelWithDebInfo), asan (address+undefined), tsan (thread,
# the tests labelled "concurrency"), fuzz (clang/libFuzzer, bounded time),
# x64 (MinGW x86_64 under Wine), i686 (MinGW i686, the shipped build, under
# 32-bit Wine when installed), exports (objdump checks of both DLLs),
# package (install trees, an application built against them, the ZIPs and
# the API reference; scripts/check-package.sh).
#
# Environment: KIV_STAGES limits the stages (e.g. "native x64"),
# KIV_FUZZ_SECONDS (default 20) bounds each fuzz target,
# KIV_TSAN_ALL=1 runs every test under the thread sanitizer,
# KIV_JOBS (default 2) sets build and test parallelism.
set -uo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"
JOBS="${KIV_JOBS:-2}"
FUZZ_SECONDS="${KIV_FUZZ_SECONDS:-20}"
STAGES="${KIV_STAGES:-native asan tsan fuzz x64 i686 exports package}"
BUILD="$ROOT/build"
LOGS="$BUILD/test-logs"
mkdir -p "$LOGS"

TOTAL_PASSED=0
TOTAL_FAILED=0
FAILED_STAGES=()
SUMMARY=()
START_ALL=$(date +%s)

want() { [[ " $STAGES " == *" $1 "* ]]; }
elapsed() { echo $(( $(date +%s) - $1 ))s; }
# CPU seconds (user + system) used by finished child processes so far, into
# CPU_NOW ("times" has to run in this shell, not in a subshell).
cpu_seconds() {
  times >"$LOGS/.times"
  CPU_NOW=$(tail -1 "$LOGS/.times" | awk '{ split($1, u, /[ms]/); split($2, s, /[ms]/); printf "%d", u[1] * 60 + u[2] + s[1] * 60 + s[2] }')
}
CPU_MARK=0
note() { echo; echo "==== $* ===="; }

# record STAGE RESULT PASSED FAILED SECONDS DETAIL
record() {
  local stage=$1 result=$2 passed=$3 failed=$4 took=$5 detail=${6:-}
  cpu_seconds
  took="$took/cpu $((CPU_NOW - CPU_MARK))s"
  CPU_MARK=$CPU_NOW
  # a stage that failed without a failing test (configure or build) counts once
  [ "$result" = FAIL ] && [ "$failed" -eq 0 ] && failed=1
  TOTAL_PASSED=$((TOTAL_PASSED + passed))
  TOTAL_FAILED=$((TOTAL_FAILED + failed))
  [ "$result" = FAIL ] && FAILED_STAGES+=("$stage")
  SUMMARY+=("$(printf '%-8s %-4s %4d passed %3d failed  %-18s %s' "$stage" "$result" "$passed" "$failed" "$took" "$detail")")
}

# configure_and_build DIR LOG cmake-args...
configure_and_build() {
  local dir=$1 log=$2
  shift 2
  if ! cmake -S "$ROOT" -B "$dir" -G Ninja "$@" >"$log" 2>&1; then
    tail -30 "$log"; echo "configure failed, full log: $log"; return 1
  fi
  # BUILD_TEST_SELECTION (ctest arguments such as "-L concurrency") limits the
  # build to those tests (test and target names agree); BUILD_TARGET_NAMES
  # names the targets outright.
  local targets=() name
  if [ -n "${BUILD_TEST_SELECTION:-}" ]; then
    for name in $(ctest --test-dir "$dir" -N $BUILD_TEST_SELECTION 2>/dev/null | sed -n 's/^ *Test *#[0-9]*: //p'); do
      targets+=(--target "$name")
    done
  fi
  for name in ${BUILD_TARGET_NAMES:-}; do targets+=(--target "$name"); done
  # -k 0: keep building past a broken target so the other tests can still run
  if ! cmake --build "$dir" -j "$JOBS" "${targets[@]}" -- -k 0 >>"$log" 2>&1; then
    grep -E 'error|Error|FAILED' "$log" | head -40; echo "build failed, full log: $log"; return 2
  fi
  if grep -q 'warning:' "$log"; then
    echo "compiler warnings in $dir:"; grep 'warning:' "$log" | sort -u | head -20
    WARNINGS+=("$(basename "$dir")")
  fi
  return 0
}
WARNINGS=()

# run_ctest STAGE DIR START [ctest args...]: runs the tests and records them.
run_ctest() {
  local stage=$1 dir=$2 start=$3
  shift 3
  local log="$LOGS/$stage-ctest.log"
  ctest --test-dir "$dir" -j "$JOBS" --output-on-failure "$@" >"$log" 2>&1
  local rc=$?
  local total failed
  total=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\2/p' "$log" | tail -1)
  failed=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -1)
  total=${total:-0}
  failed=${failed:-0}
  grep -E '^\s*[0-9]+/[0-9]+ Test' "$log"
  if [ $rc -ne 0 ] || [ "$failed" -ne 0 ] || [ -n "${BUILD_BROKEN:-}" ]; then
    sed -n '/The following tests FAILED/,$p' "$log"
    [ "$failed" -eq 0 ] && [ -z "${BUILD_BROKEN:-}" ] && failed=1
    record "$stage" FAIL $((total - failed < 0 ? 0 : total - failed)) "$failed" "$(elapsed "$start")" \
      "${BUILD_BROKEN:+build failed (tests that built were run) }log: $log"
  else
    record "$stage" ok "$total" 0 "$(elapsed "$start")"
  fi
}

# build_and_test STAGE cmake-args...: builds build/ci-STAGE and runs all its
# tests (those that built, when part of the build failed).
build_and_test() {
  local stage=$1 dir="$BUILD/ci-$1" t
  shift
  t=$(date +%s)
  if configure_and_build "$dir" "$LOGS/$stage-build.log" "$@"; then
    run_ctest "$stage" "$dir" "$t"
  elif [ $? -eq 2 ]; then
    BUILD_BROKEN=1 run_ctest "$stage" "$dir" "$t"
  else
    record "$stage" FAIL 0 0 "$(elapsed "$t")" "configure failed: $LOGS/$stage-build.log"
  fi
}

note "setup"
if ! "$ROOT/scripts/setup.sh"; then
  echo "setup failed"
  record setup FAIL 0 0 "$(elapsed "$START_ALL")"
fi
WINE32="$(cat "$BUILD/wine32.status" 2>/dev/null || echo unavailable)"

if want native; then
  note "native RelWithDebInfo build and tests"
  build_and_test native -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi

if want asan; then
  note "native address+undefined sanitizer build and tests"
  t=$(date +%s)
  if configure_and_build "$BUILD/ci-asan" "$LOGS/asan-build.log" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
       -DKIV_SANITIZE=address,undefined -DKIV_BUILD_BENCH=OFF; then
    ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:halt_on_error=1" \
      UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" run_ctest asan "$BUILD/ci-asan" "$t"
  else
    record asan FAIL 0 0 "$(elapsed "$t")" "build failed: $LOGS/asan-build.log"
  fi
fi

if want tsan; then
  note "native thread sanitizer build and concurrency tests"
  t=$(date +%s)
  label=(-L concurrency)
  [ -n "${KIV_TSAN_ALL:-}" ] && label=()
  # Only the tests that run here are built.
  if BUILD_TEST_SELECTION="${label[*]:-}" configure_and_build "$BUILD/ci-tsan" "$LOGS/tsan-build.log" \
       -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIV_SANITIZE=thread -DKIV_BUILD_BENCH=OFF; then
    TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1" run_ctest tsan "$BUILD/ci-tsan" "$t" "${label[@]}"
  else
    record tsan FAIL 0 0 "$(elapsed "$t")" "build failed: $LOGS/tsan-build.log"
  fi
fi

if want fuzz; then
  note "fuzz targets (${FUZZ_SECONDS}s each)"
  t=$(date +%s)
  if [ ! -f "$ROOT/tests/fuzz/CMakeLists.txt" ]; then
    record fuzz skip 0 0 "$(elapsed "$t")" "no tests/fuzz"
  elif BUILD_TARGET_NAMES="$(cd "$ROOT/tests/fuzz" && ls *_fuzz.cpp | sed 's/\.cpp$//')" \
       configure_and_build "$BUILD/ci-fuzz" "$LOGS/fuzz-build.log" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
         -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DKIV_BUILD_FUZZ=ON -DKIV_BUILD_TESTS=OFF \
         -DKIV_BUILD_BENCH=OFF; then
    passed=0; failed=0
    for src in "$ROOT"/tests/fuzz/*_fuzz.cpp; do
      name=$(basename "$src" .cpp)
      exe=$(find "$BUILD/ci-fuzz" -type f -name "$name" -perm -u+x | head -1)
      if [ -z "$exe" ]; then echo "fuzz: $name not built"; failed=$((failed + 1)); continue; fi
      # Work on a copy of the seed corpus so the repository is never written.
      work="$BUILD/ci-fuzz/run-$name"
      rm -rf "$work"; mkdir -p "$work/corpus"
      seeds="$ROOT/tests/fuzz/corpus_${name%_fuzz}"
      [ -d "$seeds" ] && cp -r "$seeds/." "$work/corpus/"
      if (cd "$work" && "$exe" -max_total_time="$FUZZ_SECONDS" -rss_limit_mb=2048 -print_final_stats=0 \
            corpus >"$LOGS/fuzz-$name.log" 2>&1); then
        echo "fuzz: $name ok ($(grep -o 'Done [0-9]* runs' "$LOGS/fuzz-$name.log" | tail -1))"
        passed=$((passed + 1))
      else
        echo "fuzz: $name FAILED, log: $LOGS/fuzz-$name.log"
        grep -E 'ERROR|SUMMARY|crash-' "$LOGS/fuzz-$name.log" | head -10
        failed=$((failed + 1))
      fi
    done
    result=ok; [ $failed -ne 0 ] && result=FAIL
    record fuzz $result $passed $failed "$(elapsed "$t")"
  else
    record fuzz FAIL 0 0 "$(elapsed "$t")" "build failed: $LOGS/fuzz-build.log"
  fi
fi

if want x64; then
  note "x86_64 MinGW build, tests under Wine"
  build_and_test x64 -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-mingw-x86_64.cmake"
fi

if want i686; then
  note "i686 MinGW build (shipped), tests under 32-bit Wine"
  t=$(date +%s)
  if configure_and_build "$BUILD/ci-i686" "$LOGS/i686-build.log" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
       -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-mingw-i686.cmake"; then
    if [ "$WINE32" = usable ]; then
      run_ctest i686 "$BUILD/ci-i686" "$t"
    else
      echo "i686 tests skipped: wine32 not installable here"
      record i686 skip 0 0 "$(elapsed "$t")" "built; tests skipped: wine32 not installable here"
    fi
  else
    record i686 FAIL 0 0 "$(elapsed "$t")" "build failed: $LOGS/i686-build.log"
  fi
fi

# Every export is KIV_ and undecorated; imports are DLLs Windows itself has.
check_dll() {
  local dll=$1 objdump=$2 bad=0
  local exports imports
  exports=$("$objdump" -p "$dll" | awk '/\[Ordinal\/Name Pointer\] Table/{on=1; next} on && /^[ \t]*\[ *[0-9]+\]/{print $NF; next} on && NF==0{on=0}')
  imports=$("$objdump" -p "$dll" | sed -n 's/^[[:space:]]*DLL Name: //p')
  echo "$(basename "$(dirname "$(dirname "$dll")")"): $(echo "$exports" | grep -c .) exports, imports: $(echo $imports)"
  if [ -z "$exports" ]; then echo "  no exports found"; bad=1; fi
  local e
  for e in $exports; do
    if [[ ! "$e" =~ ^KIV_[A-Za-z0-9]+$ ]]; then echo "  bad export name: $e"; bad=1; fi
  done
  local systemdir=/usr/lib/x86_64-linux-gnu/wine/x86_64-windows
  local i lower
  for i in $imports; do
    lower=$(echo "$i" | tr 'A-Z' 'a-z')
    case "$lower" in
      lib*.dll) echo "  toolchain runtime imported: $i"; bad=1; continue ;;
    esac
    if [ -d "$systemdir" ] && [ ! -f "$systemdir/$lower" ]; then
      echo "  import is not a Windows system DLL: $i"; bad=1
    fi
  done
  return $bad
}

if want exports; then
  note "DLL exports and imports"
  t=$(date +%s)
  passed=0; failed=0
  for pair in "ci-i686:i686-w64-mingw32-objdump" "ci-x64:x86_64-w64-mingw32-objdump"; do
    dir=${pair%%:*}; objdump=${pair#*:}
    dll="$BUILD/$dir/src/kivcapture.dll"
    if [ ! -f "$dll" ]; then echo "$dll missing"; failed=$((failed + 1)); continue; fi
    if check_dll "$dll" "$objdump"; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
  done
  result=ok; [ $failed -ne 0 ] && result=FAIL
  record exports $result $passed $failed "$(elapsed "$t")"
fi

# The package stage reuses the native, x64 and i686 build folders (building
# the library there when a stage before did not) and counts each check of
# scripts/check-package.sh as one test.
package_stage() {
  local t cfg dir log="$LOGS/package.log" passed failed rc
  local -a args
  t=$(date +%s)
  for cfg in native x64 i686; do
    dir="$BUILD/ci-$cfg"
    args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
    [ "$cfg" = x64 ] && args+=(-DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-mingw-x86_64.cmake")
    [ "$cfg" = i686 ] && args+=(-DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-mingw-i686.cmake")
    if ! BUILD_TARGET_NAMES=kivcapture configure_and_build "$dir" "$LOGS/package-$cfg-build.log" "${args[@]}"; then
      record package FAIL 0 0 "$(elapsed "$t")" "library build failed: $LOGS/package-$cfg-build.log"
      return
    fi
  done
  "$ROOT/scripts/check-package.sh" >"$log" 2>&1
  rc=$?
  grep -E '^(PASS|FAIL): |^    ' "$log"
  passed=$(grep -c '^PASS: ' "$log")
  failed=$(grep -c '^FAIL: ' "$log")
  if [ $rc -eq 0 ] && [ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]; then
    record package ok "$passed" 0 "$(elapsed "$t")"
  else
    record package FAIL "$passed" "$failed" "$(elapsed "$t")" "log: $log"
  fi
}

if want package; then
  note "package: install trees, consumer builds, ZIPs and the API reference"
  package_stage
fi

echo
echo "==== summary ($(elapsed "$START_ALL") in all) ===="
for line in "${SUMMARY[@]}"; do echo "$line"; done
[ ${#WARNINGS[@]} -gt 0 ] && echo "compiler warnings in: ${WARNINGS[*]}"
[ ${#FAILED_STAGES[@]} -gt 0 ] && echo "failed stages: ${FAILED_STAGES[*]}"
echo "$TOTAL_PASSED passed, $TOTAL_FAILED failed"
[ ${#FAILED_STAGES[@]} -eq 0 ]
