#!/usr/bin/env bash
# Builds the library and the sample application and runs every sample mode:
# natively, then the x86_64 Windows build under Wine. Sets the machine up
# first. Output files and logs go to build/sample-output/.
set -uo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"
JOBS="${KIV_JOBS:-2}"
OUT="$ROOT/build/sample-output"
NATIVE="$ROOT/build/sample-native"
WIN64="$ROOT/build/sample-x64"
failures=()

"$ROOT/scripts/setup.sh" || { echo "setup failed"; exit 1; }
rm -rf "$OUT"
mkdir -p "$OUT/native" "$OUT/x64"

build() {
  local dir=$1
  shift
  cmake -S "$ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKIV_BUILD_TESTS=OFF \
    -DKIV_BUILD_BENCH=OFF "$@" >"$OUT/$(basename "$dir")-build.log" 2>&1 &&
    cmake --build "$dir" -j "$JOBS" --target kivsample >>"$OUT/$(basename "$dir")-build.log" 2>&1
}

# A short H.264 elementary stream for the record mode: a test pattern with a
# moving counter, one key frame a second.
CLIP="$OUT/testsrc.h264"
if ! ffmpeg -hide_banner -loglevel error -y -f lavfi -i "testsrc=size=640x360:rate=30:duration=4" \
     -c:v libx264 -preset veryfast -pix_fmt yuv420p -g 30 -bf 0 -f h264 "$CLIP"; then
  echo "could not generate $CLIP"; failures+=("clip")
fi

# run_mode LABEL WORKDIR command...
run_mode() {
  local label=$1 workdir=$2
  shift 2
  echo
  echo "---- $label: $* ----"
  if (cd "$workdir" && "$@"); then
    echo "---- $label: ok"
  else
    echo "---- $label: FAILED (exit $?)"
    failures+=("$label")
  fi
}

echo "==== native build ===="
if build "$NATIVE"; then
  exe="$NATIVE/samples/kivsample"
  run_mode "native info" "$OUT/native" "$exe"
  run_mode "native graph" "$OUT/native" "$exe" graph
  run_mode "native process" "$OUT/native" "$exe" process
  run_mode "native record" "$OUT/native" "$exe" record "$CLIP" "$OUT/native/record.mp4"
  run_mode "native record split" "$OUT/native" "$exe" record "$CLIP" "$OUT/native/split.mp4" 1
  run_mode "native audio" "$OUT/native" "$exe" audio 1
  run_mode "native render" "$OUT/native" "$exe" render 1
  run_mode "native devices" "$OUT/native" "$exe" devices
  run_mode "native capture" "$OUT/native" "$exe" capture "$OUT/native/capture.mp4" 1
  [ -f "$NATIVE/samples/kivcapture.log" ] && cp "$NATIVE/samples/kivcapture.log" "$OUT/native/"
else
  echo "native build failed: $OUT/sample-native-build.log"; failures+=("native build")
fi

echo
echo "==== x86_64 Windows build under Wine ===="
# The tests folder is configured (not built) for the test camera of the
# devices mode.
if build "$WIN64" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-mingw-x86_64.cmake" -DKIV_BUILD_TESTS=ON; then
  cp "$WIN64/src/kivcapture.dll" "$WIN64/samples/"
  cp "$CLIP" "$OUT/x64/"
  exe="$WIN64/samples/kivsample.exe"
  export KIV_BUILD_DIR="$WIN64"
  wine="$ROOT/scripts/wine-run.sh"
  # Relative file names: the program sees the working folder as a drive path.
  run_mode "wine info" "$OUT/x64" "$wine" "$exe"
  run_mode "wine graph" "$OUT/x64" "$wine" "$exe" graph
  run_mode "wine process" "$OUT/x64" "$wine" "$exe" process
  run_mode "wine record" "$OUT/x64" "$wine" "$exe" record testsrc.h264 record.mp4
  # A 1 kHz tone into the harness's kiv_sink_a, captured from its monitor.
  ( source "$ROOT/scripts/wine-env.sh" && kiv_ensure_pulse; kiv_close_fds; exec setsid bash -c \
      'ffmpeg -hide_banner -loglevel error -f lavfi \
         -i "aevalsrc=0.25*sin(2*PI*1000*t)|0.25*sin(2*PI*1000*t):s=48000:d=60" -f s16le - |
       pacat --device=kiv_sink_a --format=s16le --rate=48000 --channels=2 --raw' </dev/null >/dev/null 2>&1 ) &
  tone=$!
  sleep 1
  run_mode "wine audio" "$OUT/x64" "$wine" "$exe" audio 3 kiv_sink_a
  kill -- "-$tone" 2>/dev/null
  # The render mode opens a window on the Xvfb display and captures it.
  run_mode "wine render" "$OUT/x64" "$wine" "$exe" render 3
  if [ -f "$OUT/x64/render.bmp" ]; then
    ffmpeg -hide_banner -loglevel error -y -i "$OUT/x64/render.bmp" "$OUT/render.png" &&
      echo "render screenshot: $OUT/render.png"
  fi
  # Two test cameras where the system device enumerator finds cameras.
  if cmake --build "$WIN64" -j "$JOBS" --target testcam_tool >>"$OUT/sample-x64-build.log" 2>&1; then
    cam="$WIN64/tests/testcam/testcam_tool.exe"
    "$wine" "$cam" remove-all &&
      "$wine" "$cam" install cam0 "KIV Test Camera" \
        "cap=YUY2:1280:720:vih:333333:166666:333333;cap=NV12:640:480:vih2:333333:0:0;cap=MJPG:1920:1080:vih:333333:0:0" &&
      "$wine" "$cam" install cam1 "KIV Test Camera 2" "cap=RGB32:640:480:vih:666666:0:0;cap=H264:1920:1080:vih2:400000:0:0"
    run_mode "wine devices" "$OUT/x64" "$wine" "$exe" devices
    run_mode "wine capture" "$OUT/x64" "$wine" "$exe" capture capture.mp4 3
    "$wine" "$cam" remove-all
  else
    echo "test camera build failed: $OUT/sample-x64-build.log"; failures+=("test camera build")
  fi
  [ -f "$WIN64/samples/kivcapture.log" ] && cp "$WIN64/samples/kivcapture.log" "$OUT/x64/"
else
  echo "x86_64 build failed: $OUT/sample-x64-build.log"; failures+=("x64 build")
fi

echo
echo "==== where things went ===="
echo "native log:      $NATIVE/samples/kivcapture.log (copy in $OUT/native/)"
echo "Windows log:     $WIN64/samples/kivcapture.log (copy in $OUT/x64/)"
echo "output files:    $OUT/native and $OUT/x64"
find "$OUT" -mindepth 2 -maxdepth 2 -type f | sort | sed 's/^/  /'
for mp4 in $(find "$OUT" -name '*.mp4' | sort); do
  echo "$(basename "$mp4"): $(ffprobe -v error -show_entries stream=codec_name,width,height,nb_frames \
    -show_entries format=duration -of compact=p=0:nk=1 "$mp4" 2>&1 | tr '\n' ' ')"
done
if [ ${#failures[@]} -gt 0 ]; then
  echo "failed: ${failures[*]}"
  exit 1
fi
echo "all sample modes ran"
