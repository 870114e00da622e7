#!/bin/sh
# Decodes the window test's snapshots with ffmpeg and compares them with the
# pixels the window showed (64x48 BGRA): the BMP must match exactly, the JPEG
# within a PSNR of 30 dB.
set -eu
cd "$1"
window="-f rawvideo -pix_fmt bgra -s 64x48 -i window.bgra"
ffmpeg -v error -y -i cpu.bmp -f rawvideo -pix_fmt bgr24 bmp.bgr
ffmpeg -v error -y $window -f rawvideo -pix_fmt bgr24 window.bgr
cmp bmp.bgr window.bgr
psnr=$(ffmpeg -hide_banner -i cpu.jpg $window -lavfi "[0:v]format=bgr24[a];[1:v]format=bgr24[b];[a][b]psnr" -f null - 2>&1 |
       sed -n 's/.*PSNR.* average:\([0-9.inf]*\).*/\1/p')
echo "BMP equals the window; JPEG against the window: PSNR ${psnr:-?} dB"
awk -v p="${psnr:-0}" 'BEGIN { exit !(p == "inf" || p + 0 >= 30) }'
rm -f bmp.bgr window.bgr cpu.bmp cpu.jpg window.bgra
