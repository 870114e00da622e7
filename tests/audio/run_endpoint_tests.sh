#!/usr/bin/env bash
# run_endpoint_tests.sh program.exe [args...]: runs a Wine program with a 1 kHz tone (quarter scale) playing into
# kiv_sink_a, kiv_sink_b the default playback device recorded into KIV_AUDIO_SINK_B_RECORDING, and a sink whose
# monitor's name (200 two-byte characters) is longer than a device record holds.
set -uo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
source "$ROOT/scripts/wine-env.sh"
exe="$(readlink -f "$1")"; shift
mkdir -p "$KIV_LOCK_DIR"
kiv_ensure_pulse || exit 1
exec 8>"$KIV_LOCK_DIR/audio-endpoints.lock"  # one run at a time owns the default sink and the test sinks
kiv_lock 8 "the audio endpoint lock" || exit 1
work="$(mktemp -d "${TMPDIR:-/tmp}/kiv-audio-endpoints.XXXXXX")" pids=() module=""
trap 'kill -- "${pids[@]/#/-}" 2>/dev/null; [ -z "$module" ] || pactl unload-module "$module"
      pactl set-default-sink kiv_null_sink; rm -rf "$work"' EXIT
# Each in a session of its own, so the whole pipeline stops with its group.
( kiv_close_fds; exec setsid bash -c 'ffmpeg -hide_banner -loglevel error -f lavfi \
    -i "aevalsrc=0.25*sin(2*PI*1000*t)|0.25*sin(2*PI*1000*t):s=48000:d=600" -f s16le - |
    pacat --device=kiv_sink_a --format=s16le --rate=48000 --channels=2 --raw' </dev/null >/dev/null 2>&1 ) & pids+=($!)
( kiv_close_fds; exec setsid parec --device=kiv_sink_b.monitor --format=s16le --rate=48000 --channels=2 --raw \
    </dev/null >"$work/sink_b.raw" 2>/dev/null ) & pids+=($!)
pactl set-default-sink kiv_sink_b
module=$(pactl load-module module-null-sink sink_name=kiv_sink_long \
  "sink_properties=device.description='kiv_long_$(printf 'é%.0s' $(seq 200))'")
sleep 1
KIV_AUDIO_SINK_B_RECORDING="Z:$work/sink_b.raw" "$ROOT/scripts/wine-run.sh" "$exe" "$@"
