#!/usr/bin/env bash
# FFmpeg's stream copy of the 1080p H.264 stream that bench/recorder_bench
# records, into MP4 on the same disk: frames per second and MB/s of input,
# wall-clock time of the whole run (best of N).
#   scripts/bench-recorder-ffmpeg.sh [runs]
set -euo pipefail

runs=${1:-5}
stream=/tmp/kiv_recorder_bench_1080p.h264
out=/tmp/kiv_recorder_bench_ffmpeg.mp4

# The same command as bench/recorder_bench.cpp uses.
if [ ! -s "$stream" ]; then
  ffmpeg -v error -y -f lavfi -i testsrc2=s=1920x1080:r=30 -frames:v 300 -pix_fmt yuv420p -c:v libx264 \
    -preset veryfast -b:v 8M -g 60 -bsf:v h264_metadata=aud=insert -f h264 "$stream"
fi
frames=$(ffprobe -v error -count_packets -select_streams v:0 -show_entries stream=nb_read_packets -of csv=p=0 "$stream")
bytes=$(stat -c %s "$stream")

# Best wall-clock seconds of `runs` stream copies of at most $1 frames.
best_seconds() {
  local best="" start end t
  for _ in $(seq "$runs"); do
    start=$(date +%s.%N)
    ffmpeg -v error -nostdin -y -r 30 -f h264 -i "$stream" -frames:v "$1" -c copy -f mp4 "$out"
    end=$(date +%s.%N)
    t=$(awk -v a="$start" -v b="$end" 'BEGIN { print b - a }')
    if [ -z "$best" ] || awk -v t="$t" -v b="$best" 'BEGIN { exit !(t < b) }'; then best=$t; fi
  done
  echo "$best"
}

all=$(best_seconds "$frames")
# Process start, probing and one frame: what a library call does not pay.
one=$(best_seconds 1)
rm -f "$out"

awk -v t="$all" -v s="$one" -v f="$frames" -v b="$bytes" 'BEGIN {
  printf "ffmpeg -c copy, %d frames 1920x1080, %.1f MB, best of runs\n", f, b / 1e6
  printf "  whole run:            %6.1f ms  %6.0f frames/s  %5.0f MB/s\n", t * 1000, f / t, b / t / 1e6
  c = t - s
  printf "  minus a 1-frame run:  %6.1f ms  %6.0f frames/s  %5.0f MB/s\n", c * 1000, f / c, b / c / 1e6 }'
