#!/usr/bin/env bash
# Builds the test suites with sanitizers and runs them:
#  - build-asan: everything with AddressSanitizer + UndefinedBehaviorSanitizer, all
#    tests but the slow Consumer* builds;
#  - build-tsan: the threading-related suites (thread, timer, clock, ref counting,
#    logging, and every recorder suite) with ThreadSanitizer.
# Any sanitizer report fails the run. FFmpeg comes from the system uninstrumented.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

jobs=${JOBS:-2}
# Warnings are the plain build's business: with sanitizers GCC reports
# maybe-uninitialized inside libstdc++ (std::regex, std::function) where there is none.
common=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNEL_WARNINGS_AS_ERRORS=OFF
        -DTARNEL_BUILD_BENCHMARKS=OFF -DTARNEL_BUILD_EXAMPLES=OFF)

echo "== AddressSanitizer + UndefinedBehaviorSanitizer (build-asan)"
cmake -S . -B build-asan "${common[@]}" \
  -DCMAKE_CXX_FLAGS="-fsanitize=address,undefined -fno-omit-frame-pointer -Wno-maybe-uninitialized" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" \
  -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=address,undefined"
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs" -E Consumer

echo "== ThreadSanitizer (build-tsan)"
# The suites that start threads, by test file; present ones only, so trimming a file
# does not break this script.
tsan_targets=()
for f in tests/base/thread_test.cc tests/base/timer_test.cc tests/base/time_test.cc \
         tests/base/ref_counted_test.cc tests/base/logging_test.cc \
         tests/common/local_recording/*_test.cc; do
  [ -f "$f" ] && tsan_targets+=("$(basename "$f" .cc)")
done
cmake -S . -B build-tsan "${common[@]}" -DTARNEL_BUILD_TOOLS=OFF \
  -DCMAKE_CXX_FLAGS="-fsanitize=thread -fno-omit-frame-pointer -Wno-maybe-uninitialized" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=thread" \
  -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=thread"
cmake --build build-tsan -j"$jobs" --target "${tsan_targets[@]}"
status=0
for t in "${tsan_targets[@]}"; do
  echo "-- $t"
  TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1" \
    timeout 600 "build-tsan/tests/$t" --gtest_brief=1 || status=1
done
exit $status
