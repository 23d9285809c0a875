#!/usr/bin/env bash
# Kills real-time recordings with SIGKILL at seeded random moments and checks what is
# left: every file must open in ffprobe, decode without a single error and hold the
# media handed over up to about half a second before the kill. Each killed MP4 is then
# repaired (tarnel-record --repair) into a standard MP4 that must decode clean and keep
# every frame.
#
#   scripts/crash_test.sh [KILLS_PER_FORMAT=20] [SEED=1] [BUILD_DIR=build]
#
# KILL_WINDOW_S (default 9.5) bounds the kill moments: they fall between 1.5 s and it.
# Prints one line per kill and the worst loss per format; exits non-zero when a file
# does not decode or loses more than MAX_LOSS_S (default 0.6; MP4 measures 0.49 at worst over 20 kills) seconds.
set -euo pipefail
kills=${1:-20}
seed=${2:-1}
build=${3:-${BUILD_DIR:-build}}
max_loss=${MAX_LOSS_S:-0.6}
window=${KILL_WINDOW_S:-9.5}
root=$(cd "$(dirname "$0")/.." && pwd)
tool="$build/tools/tarnel-record"
[ -x "$tool" ] || tool="$root/$build/tools/tarnel-record"
sample="$root/samples/sample.mp4"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

failed=0
for format in mp4 mkv; do
  worst=0
  for i in $(seq 1 "$kills"); do
    # Kill between 1.5 s and the end of the window, into the 10 s sample.
    at=$(awk -v s="$seed" -v i="$i" -v f="$format" -v w="$window" \
      'BEGIN { srand(s * 1000 + i * 7 + (f == "mkv")); printf "%.3f", 1.5 + rand() * (w - 1.5) }')
    out="$work/kill_${i}.$format"
    "$tool" -i "$sample" -o "$out" --realtime --stereo >/dev/null 2>&1 &
    pid=$!
    sleep "$at"
    kill -9 "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true

    status=ok
    if ! ffprobe -v error "$out" >/dev/null 2>&1; then
      status="ffprobe cannot open it"
    else
      errors=$(ffmpeg -nostdin -v error -i "$out" -f null - 2>&1 | head -3)
      [ -z "$errors" ] || status="decode errors: $errors"
    fi
    frames=$(ffprobe -v error -select_streams v -count_frames \
      -show_entries stream=nb_read_frames -of csv=p=0 "$out" 2>/dev/null || echo 0)
    frames=${frames:-0}
    # Media kept vs. wall time since launch: the difference includes the tool's start-up,
    # so it overstates the loss a little.
    loss=$(awk -v at="$at" -v n="$frames" 'BEGIN { printf "%.3f", at - n / 30.0 }')
    worst=$(awk -v a="$worst" -v b="$loss" 'BEGIN { print (b > a) ? b : a }')
    if [ "$status" = ok ] && [ "$format" = mp4 ]; then
      if ! "$tool" --repair "$out" >/dev/null 2>&1; then
        status="repair failed"
      else
        errors=$(ffmpeg -nostdin -v error -i "$out" -f null - 2>&1 | head -3)
        repaired=$(ffprobe -v error -select_streams v -count_frames \
          -show_entries stream=nb_read_frames -of csv=p=0 "$out" 2>/dev/null || echo 0)
        [ -z "$errors" ] || status="repaired file: decode errors: $errors"
        [ "$repaired" = "$frames" ] || status="repaired file: $repaired frames, not $frames"
      fi
    fi
    if [ "$status" != ok ] || awk -v l="$loss" -v m="$max_loss" 'BEGIN { exit !(l > m) }'; then
      failed=1
      [ "$status" = ok ] && status="lost more than ${max_loss} s"
    fi
    printf '%s kill %2d at %6.3f s: %4d frames kept, loss %6.3f s  %s\n' \
      "$format" "$i" "$at" "$frames" "$loss" "$status"
  done
  printf '%s: worst loss over %d kills: %.3f s\n' "$format" "$kills" "$worst"
done
exit $failed
