#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) into build-fuzz and runs each
# for SECONDS (default 20), starting from the committed seeds in fuzz/corpus/<name>/.
# New inputs collect in build-fuzz/corpus/<name>/; a crash, leak, sanitizer report,
# time-out or out-of-memory stops that fuzzer, leaves the input in
# build-fuzz/artifacts/ and fails the run. Replay one with
#   build-fuzz/fuzz/<name> <input>      (TARNEL_FUZZ_LOG=1 shows the component's log)
#
#   bash scripts/run-fuzzers.sh          # 20 s each, as CI does
#   bash scripts/run-fuzzers.sh 600      # longer, by hand
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
bash scripts/install-deps.sh

build=build-fuzz
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined"
flags+=" -fno-omit-frame-pointer -gline-tables-only"
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTARNEL_BUILD_FUZZERS=ON -DTARNEL_WARNINGS_AS_ERRORS=ON -DTARNEL_BUILD_TOOLS=OFF \
  -DTARNEL_BUILD_BENCHMARKS=OFF -DTARNEL_BUILD_EXAMPLES=OFF -DTARNEL_INSTALL=OFF \
  -DCMAKE_CXX_FLAGS="$flags" >/dev/null

fuzzers=(parser_fuzzer recorder_fuzzer writer_fuzzer)
# Built only where libfaad was found at configure time (CMake says so otherwise).
if grep -q "^FAAD2_FOUND:INTERNAL=1" "$build/CMakeCache.txt"; then
  fuzzers+=(aac_encoder_fuzzer)
fi
cmake --build "$build" -j"${JOBS:-2}" --target "${fuzzers[@]}"

export ASAN_OPTIONS=detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
mkdir -p "$build/artifacts"
status=0
for name in "${fuzzers[@]}"; do
  mkdir -p "$build/corpus/$name"
  log="$build/artifacts/$name.log"
  echo "== $name, ${seconds}s"
  # Inputs are kept short so that each run stays quick; -timeout catches hangs.
  if "$build/fuzz/$name" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 \
      -max_len=2048 -len_control=10 -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/$name-" \
      "$build/corpus/$name" "fuzz/corpus/$name" >"$log" 2>&1; then
    grep -E "^Done" "$log" | tail -1
  else
    tail -n 60 "$log"
    echo "!! $name failed; input and log under $build/artifacts/"
    status=1
  fi
done
exit $status
