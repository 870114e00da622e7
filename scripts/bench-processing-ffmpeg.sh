#!/usr/bin/env bash
# FFmpeg's single-threaded cost per 1920x1080 frame for the work the colour
# engine does: trilinear 3D LUT on 8-bit RGB and the swscale conversions.
# Each figure is the user CPU time of a run with the filter minus that of
# the same run without it, divided by the frame count, so test-pattern
# generation and the null output are not counted.
#   scripts/bench-processing-ffmpeg.sh [frames]
set -euo pipefail

frames=${1:-120}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A warm grade on a 33-point lattice, like the one bench/processing_bench uses.
awk 'BEGIN {
  print "LUT_3D_SIZE 33";
  for (b = 0; b < 33; b++) for (g = 0; g < 33; g++) for (r = 0; r < 33; r++) {
    rr = r / 32 * 1.08 + 0.02; if (rr > 1) rr = 1;
    printf "%.6f %.6f %.6f\n", rr, g / 32 * 0.98 + 0.01, b / 32 * 0.85;
  }
}' > "$work/warm33.cube"

# User CPU seconds of one run of the filter chain $1.
cpu_seconds() {
  ffmpeg -hide_banner -nostdin -benchmark -threads 1 -filter_threads 1 \
    -f lavfi -i "testsrc2=s=1920x1080:r=30" -frames:v "$frames" \
    -vf "$1" -f null - 2>&1 | sed -n 's/.*bench: utime=\([0-9.]*\)s.*/\1/p' | tail -1
}

per_frame_ms() {
  local base with
  base=$(cpu_seconds "$1")
  with=$(cpu_seconds "$2")
  awk -v a="$base" -v b="$with" -v n="$frames" 'BEGIN { printf "%.2f", (b - a) * 1000 / n }'
}

printf '%-44s %s\n' "ffmpeg, 1920x1080, one thread" "ms/frame"
printf '%-44s %s\n' "lut3d trilinear, 33 points, bgra" \
  "$(per_frame_ms "format=bgra" "format=bgra,lut3d=file=$work/warm33.cube:interp=trilinear")"
printf '%-44s %s\n' "lut3d trilinear, 33 points, rgb24" \
  "$(per_frame_ms "format=rgb24" "format=rgb24,lut3d=file=$work/warm33.cube:interp=trilinear")"
printf '%-44s %s\n' "swscale yuyv422 -> bgra" \
  "$(per_frame_ms "format=yuyv422" "format=yuyv422,scale=flags=bilinear,format=bgra")"
printf '%-44s %s\n' "swscale nv12 -> bgra" \
  "$(per_frame_ms "format=nv12" "format=nv12,scale=flags=bilinear,format=bgra")"
printf '%-44s %s\n' "swscale bgra -> yuyv422" \
  "$(per_frame_ms "format=bgra" "format=bgra,scale=flags=bilinear,format=yuyv422")"
printf '%-44s %s\n' "swscale bgra -> nv12" \
  "$(per_frame_ms "format=bgra" "format=bgra,scale=flags=bilinear,format=nv12")"

# The render port's CPU conversion: nearest-neighbour scaling with a format
# change (bench/render_convert_bench has the library's figures).
printf '%-44s %s\n' "swscale nv12 -> bgra 1280x720, neighbor" \
  "$(per_frame_ms "format=nv12" "format=nv12,scale=1280:720:flags=neighbor,format=bgra")"
printf '%-44s %s\n' "swscale yuyv422 -> bgra 1280x720, neighbor" \
  "$(per_frame_ms "format=yuyv422" "format=yuyv422,scale=1280:720:flags=neighbor,format=bgra")"
printf '%-44s %s\n' "swscale bgra -> nv12 1280x720, neighbor" \
  "$(per_frame_ms "format=bgra" "format=bgra,scale=1280:720:flags=neighbor,format=nv12")"
