#!/usr/bin/env bash
# Makes samples/sample.mp4, the bundled default input: 10 s of 640x360 H.264 at 30 fps
# (a moving test pattern that flashes white for one frame at 0.5 s, 1.5 s, ...) and
# 44100 Hz stereo AAC (a quiet 440 Hz tone with a 50 ms 1 kHz beep at the same
# instants). The flash and the beep share their timestamps, so a recording can be
# checked for A/V sync; 44.1 kHz makes the recorder resample.
set -euo pipefail
cd "$(dirname "$0")"
tone='0.1*sin(2*PI*440*t)+0.6*sin(2*PI*1000*t)*between(mod(t,1),0.5,0.55)'
ffmpeg -y -v error \
  -f lavfi -i "testsrc2=size=640x360:rate=30,drawbox=enable='between(mod(t,1),0.5,0.53)':color=white:t=fill" \
  -f lavfi -i "aevalsrc='${tone}|${tone}':s=44100:d=10" \
  -t 10 -c:v libx264 -preset veryfast -profile:v main -bf 0 -g 60 -b:v 500k -maxrate 600k \
  -bufsize 600k -pix_fmt yuv420p -c:a aac -b:a 96k -movflags +faststart sample.mp4
