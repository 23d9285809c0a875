#!/usr/bin/env bash
# Memory of a recorder fed a backlog: tarnel-record --burst hands 10 minutes of 720p
# H.264 and real music to the recorder as fast as they are read, never waiting for it,
# with the recorder's queue bounded by --max-queue-mb. Measures the tool's peak RSS and
# checks the recording.
#
#   bash bench/burst_memory.sh
#
# Environment (all optional):
#   BURST_DIR      work dir for inputs and output            (default /tmp/tarnel-burst)
#   BUILD_DIR      CMake build dir (Release when it is made)  (default build-bench)
#   DURATION       input length in seconds                   (default 600)
#   MAX_QUEUE_MB   the recorder's queue bound in MiB          (default 8)
#   RSS_TARGET_MB  peak RSS the run should stay within, MiB   (default 80)
#
# Inputs (made once per DURATION, kept in the work dir): 1280x720 30 fps H.264 Annex-B
# (testsrc2, x264 veryfast, no B-frames, GOP 60, 2.5 Mb/s) and raw 48 kHz stereo s16le
# PCM of real music made by bench/real_audio.sh (pop, orchestral and electronic tracks
# from Debian packages, installed when missing). The run:
#   tarnel-record --burst --max-queue-mb 8 --stereo --json \
#       -f h264 --video-fps 30 -i in.h264 -f s16le --pcm-rate 48000 --pcm-channels 2 \
#       -i music.pcm -o out.mp4
# under /usr/bin/time -v. Checks: the recording completed with Ok, the MP4 decodes
# without a message from `ffmpeg -v error`, and its audio and video streams last the same
# within 50 ms (ffprobe). Prints the drops the recorder reported and the peak RSS against
# the target; exits 1 when a check fails or the peak RSS is over the target.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
WORK="${BURST_DIR:-/tmp/tarnel-burst}"
BUILD_DIR="${BUILD_DIR:-$ROOT/build-bench}"
DURATION="${DURATION:-600}"
MAX_QUEUE_MB="${MAX_QUEUE_MB:-8}"
RSS_TARGET_MB="${RSS_TARGET_MB:-80}"
TIME=/usr/bin/time

bash "$ROOT/scripts/install-deps.sh" time ffmpeg python3 cmake >&2
source "$ROOT/bench/common.sh"
require_tools ffmpeg ffprobe python3 cmake "$TIME"

build_tarnel_record "$BUILD_DIR"

mkdir -p "$WORK"
cd "$WORK"
STAMP="inputs-${DURATION}s.done"
if [ ! -f "$STAMP" ]; then
  echo "== making ${DURATION}s inputs in $WORK"
  rm -f inputs-*.done
  ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=size=1280x720:rate=30" -t "$DURATION" \
    -c:v libx264 -preset veryfast -bf 0 -g 60 -b:v 2500k -f h264 in.h264
  bash "$ROOT/bench/real_audio.sh" music "$DURATION" music.wav
  ffmpeg -nostdin -v error -y -i music.wav -c:a pcm_s16le -f s16le music.pcm
  touch "$STAMP"
fi

echo "== recording with --burst --max-queue-mb $MAX_QUEUE_MB"
rm -f out.mp4
status=0
"$TIME" -v -o time.txt "$TARNEL" --burst --max-queue-mb "$MAX_QUEUE_MB" --stereo --json \
  -f h264 --video-fps 30 -i in.h264 -f s16le --pcm-rate 48000 --pcm-channels 2 -i music.pcm \
  -o out.mp4 > summary.json 2> tool.log || status=$?
cat tool.log >&2
echo "summary: $(cat summary.json)"

DECODE_ERRORS=$(ffmpeg -nostdin -v error -i out.mp4 -f null - 2>&1 | head -c 2000 || true)
STREAMS=$(ffprobe -v error -show_entries stream=codec_type,duration -of csv=p=0 out.mp4 || true)
RSS_KB=$(awk -F': ' '/Maximum resident set size/ { print $2 }' time.txt)
WALL=$(awk -F'): ' '/Elapsed \(wall clock\)/ { print $2 }' time.txt)
export STATUS=$status DECODE_ERRORS STREAMS RSS_KB WALL RSS_TARGET_MB MAX_QUEUE_MB DURATION
python3 - summary.json <<'PY'
import json, os, sys
env = os.environ
failed = []
try:
    summary = json.load(open(sys.argv[1]))
except ValueError:
    summary = {}
result = summary.get('result', 'none (exit status %s)' % env['STATUS'])
print('result:          %s' % result)
if result != 'Ok':
    failed.append('the recording did not complete with Ok')
if env['DECODE_ERRORS']:
    print('decode errors:   %s' % env['DECODE_ERRORS'].strip())
    failed.append('the file does not decode clean')
else:
    print('decode errors:   none')
durations = {}
for line in env['STREAMS'].split():
    kind, _, seconds = line.partition(',')
    if seconds and seconds != 'N/A':
        durations[kind] = float(seconds)
if 'video' in durations and 'audio' in durations:
    gap_ms = abs(durations['video'] - durations['audio']) * 1000
    print('durations:       video %.3f s, audio %.3f s, apart %.1f ms (of %s s in)' % (
        durations['video'], durations['audio'], gap_ms, env['DURATION']))
    if gap_ms > 50:
        failed.append('audio and video durations differ by more than 50 ms')
else:
    print('durations:       %r' % durations)
    failed.append('the file lacks an audio or a video stream')
print('dropped:         %s video frames, %s audio frames, %s overload episodes' % (
    summary.get('dropped_video_frames'), summary.get('dropped_audio_frames'),
    summary.get('overload_episodes')))
peak = summary.get('peak_queued_bytes')
print('peak queued:     %s' % ('%.2f MiB' % (peak / 1048576.0) if peak is not None else None))
print('frames in/out:   video %s/%s, audio %s/%s' % (
    summary.get('video_frames_in'), summary.get('video_frames_written'),
    summary.get('audio_frames_in'), summary.get('audio_frames_written')))
rss_mib = int(env['RSS_KB']) / 1024.0
target = float(env['RSS_TARGET_MB'])
print('wall:            %s' % env['WALL'])
print('peak RSS:        %.1f MiB (target %.0f MiB: %s)' % (
    rss_mib, target, 'met' if rss_mib <= target else 'NOT met'))
if rss_mib > target:
    failed.append('peak RSS over the target')
for reason in failed:
    print('FAILED: %s' % reason)
sys.exit(1 if failed else 0)
PY
