#!/bin/sh
# Decodes the window test's snapshots with ffmpeg and compares them with the pixels the window showed
# (64x48 BGRA): the BMPs (CPU copy, GPU final texture) must match exactly, the JPEG within a PSNR of 30 dB.
set -eu
cd "$1"
for shot in cpu gpu; do
  ffmpeg -v error -y -i $shot.bmp -f rawvideo -pix_fmt bgr24 $shot.bmp.bgr
  ffmpeg -v error -y -f rawvideo -pix_fmt bgra -s 64x48 -i $shot.bgra -f rawvideo -pix_fmt bgr24 $shot.bgr
  cmp $shot.bmp.bgr $shot.bgr
done
psnr=$(ffmpeg -hide_banner -i cpu.jpg -f rawvideo -pix_fmt bgra -s 64x48 -i cpu.bgra \
       -lavfi "[0:v]format=bgr24[a];[1:v]format=bgr24[b];[a][b]psnr" -f null - 2>&1 | sed -n 's/.*PSNR.* average:\([0-9.inf]*\).*/\1/p')
echo "BMPs equal the window; JPEG against the window: PSNR ${psnr:-?} dB"
awk -v p="${psnr:-0}" 'BEGIN { exit !(p == "inf" || p + 0 >= 30) }'
rm -f cpu.* gpu.*
