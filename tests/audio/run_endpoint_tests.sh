#!/usr/bin/env bash
# Runs the audio endpoint tests under Wine with a known signal: a 1 kHz tone
# at a quarter of full scale plays into the null sink kiv_sink_a, kiv_sink_b
# is the default playback device for the run and its monitor is recorded.
#   run_endpoint_tests.sh kiv_audio_endpoint_tests.exe [gtest args...]
set -uo pipefail
HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
ROOT="$(cd "$HERE/../.." && pwd)"
# shellcheck source=../../scripts/wine-env.sh
source "$ROOT/scripts/wine-env.sh"
exe="$(readlink -f "$1")"; shift
mkdir -p "$KIV_LOCK_DIR"
kiv_ensure_pulse || { echo "no PulseAudio: cannot run the audio endpoint tests"; exit 1; }

# One run at a time owns the default sink and the two test sinks.
exec 8>"$KIV_LOCK_DIR/audio-endpoints.lock"
kiv_lock 8 "the audio endpoint lock" || exit 1

work="$(mktemp -d "${TMPDIR:-/tmp}/kiv-audio-endpoints.XXXXXX")"
tone_pid="" rec_pid="" long_module=""
cleanup() {
  [ -n "$tone_pid" ] && kill -- "-$tone_pid" 2>/dev/null
  [ -n "$rec_pid" ] && kill -- "-$rec_pid" 2>/dev/null
  [ -n "$long_module" ] && pactl unload-module "$long_module" >/dev/null 2>&1
  pactl set-default-sink kiv_null_sink >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT

# Each in a session of its own, so the whole pipeline stops with its group.
( kiv_close_fds; exec setsid bash -c 'ffmpeg -hide_banner -loglevel error -f lavfi \
    -i "aevalsrc=0.25*sin(2*PI*1000*t)|0.25*sin(2*PI*1000*t):s=48000:d=600" -f s16le - |
    pacat --device=kiv_sink_a --format=s16le --rate=48000 --channels=2 --raw' </dev/null >/dev/null 2>&1 ) &
tone_pid=$!
( kiv_close_fds; exec setsid parec --device=kiv_sink_b.monitor --format=s16le --rate=48000 --channels=2 --raw \
    </dev/null >"$work/sink_b.raw" 2>/dev/null ) &
rec_pid=$!
pactl set-default-sink kiv_sink_b
# A sink whose monitor's name is longer than a device record holds: 200
# two-byte characters, so the cut at 255 bytes splits one of them.
long_name="kiv_long_$(printf 'é%.0s' $(seq 200))"
long_module=$(pactl load-module module-null-sink sink_name=kiv_sink_long "sink_properties=device.description='$long_name'")
sleep 1

KIV_AUDIO_TONE=1 KIV_AUDIO_SINK_B_RECORDING="Z:$work/sink_b.raw" "$ROOT/scripts/wine-run.sh" "$exe" "$@"
