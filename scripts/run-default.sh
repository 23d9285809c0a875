#!/usr/bin/env bash
# Builds the project and records the bundled sample (10 s of H.264 + 44.1 kHz stereo
# AAC) into out.mp4 in real time, as a live source would deliver it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" -j2 --target tarnel-record
rm -f out.mp4
"$build/tools/tarnel-record" -i samples/sample.mp4 -o out.mp4 --realtime --stereo --progress-ms 500
echo
echo "Recorded $(pwd)/out.mp4"
echo "Play it with:  ffplay $(pwd)/out.mp4   (or mpv, VLC, a browser)"
