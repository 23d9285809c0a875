#!/usr/bin/env bash
# Builds the project and records the bundled default stream into out.mp4.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" -j2 --target record_file
rm -f out.mp4
"$build/examples/record_file" out.mp4 3
