#!/usr/bin/env bash
# Builds everything (warnings are errors) and runs every test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNEL_WARNINGS_AS_ERRORS=ON
cmake --build "$build" -j2
ctest --test-dir "$build" --output-on-failure -j2
