#!/usr/bin/env bash
# Compares tarnel-record with the ffmpeg command line on the same inputs and writes
# bench/RESULTS.md.
#
#   bash bench/compare_ffmpeg.sh
#
# Environment (all optional):
#   TARNEL_COMPARE_DIR  work dir for inputs and outputs        (default /tmp/tarnel-compare)
#   ROUNDS              rounds of every command                 (default 5)
#   DURATION            input length in seconds                 (default 300)
#   SIGNALS             audio inputs timed, music and/or speech (default "music speech")
#   BUILD_DIR           CMake build dir holding tools/tarnel-record (default build-bench)
#   RESULTS             the markdown file written               (default bench/RESULTS.md)
#
# Inputs (made once per DURATION, kept in the work dir): 1280x720 30 fps H.264 Annex-B
# (x264 veryfast, no B-frames, GOP 60, 2.5 Mb/s) and two 48 kHz stereo s16 WAVs of real
# recordings from Debian packages, made by bench/real_audio.sh (installed when missing):
# music.wav (pop, orchestral and electronic tracks, a third each) and speech.wav (two
# recorded voices and espeak-ng, a third each); their provenance goes into the report.
#
# Every round runs each command once on each signal, the order rotated from round to
# round, each under /usr/bin/time -f '%U %S %e %M':
#   tarnel_mp4          tarnel-record --fast --stereo --video-fps 30 -i in.h264 -i music.wav -o t.mp4
#                       (the recorder's own AAC encoder, the default)
#   ffmpeg_mp4_def      ffmpeg ... -c:v copy -c:a aac -b:a 192k       (FFmpeg's defaults: twoloop)
#   ffmpeg_mp4_fast     ffmpeg ... -c:v copy -c:a aac -aac_coder fast -b:a 196608 -ac 2 -ar 48000
#                       (libavcodec's fast coder at the recorder's bit rate)
#   tarnel_mp4_twoloop  tarnel-record --aac-encoder twoloop ...  (the same pipeline with
#                       libavcodec's twoloop coder at the recorder's bit rate)
#   tarnel_mkv          tarnel-record into .mkv (PCM passes through)
#   ffmpeg_mkv          ffmpeg ... -c copy out.mkv
# The results are medians over the rounds; ratios are medians of the per-round ratios
# (each pair ran in the same round), and the per-round ratios are listed too.
# Decoded audio of the last round's MP4s is checked for alignment against the source by
# cross-correlation and then compared as SNR over one span: FFmpeg's asdr, calibrated
# first (FFmpeg 5.1's prints 20*log10 of its power ratio, later ones 10*log10).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
WORK="${TARNEL_COMPARE_DIR:-/tmp/tarnel-compare}"
ROUNDS="${ROUNDS:-5}"
read -r -a SIGNALS <<< "${SIGNALS:-music speech}"
DURATION="${DURATION:-300}"
BUILD_DIR="${BUILD_DIR:-$ROOT/build-bench}"
RESULTS="${RESULTS:-$ROOT/bench/RESULTS.md}"
TIME=/usr/bin/time

source "$ROOT/bench/common.sh"
require_tools ffmpeg ffprobe python3 cmake "$TIME"

build_tarnel_record "$BUILD_DIR"

mkdir -p "$WORK"
cd "$WORK"

# ---------------------------------------------------------------------------------------
# Inputs.
STAMP="inputs-real-${DURATION}s.done"
if [ ! -f "$STAMP" ]; then
  echo "== making ${DURATION}s inputs in $WORK"
  rm -f inputs-*.done
  ffmpeg -v error -y -f lavfi -i "testsrc2=size=1280x720:rate=30" -t "$DURATION" \
    -c:v libx264 -preset veryfast -bf 0 -g 60 -b:v 2500k -f h264 in.h264
  bash "$ROOT/bench/real_audio.sh" music "$DURATION" music.wav
  bash "$ROOT/bench/real_audio.sh" speech "$DURATION" speech.wav
  touch "$STAMP"
fi

# ---------------------------------------------------------------------------------------
# Timed runs.
FF=(ffmpeg -nostdin -v error -y)
V_IN=(-f h264 -framerate 30 -i in.h264)
TR=("$TARNEL" --fast --stereo --json --video-fps 30 -i in.h264)

# Sets CMD to the command of run `name` on audio `wav`, writing `out` + extension.
set_cmd() {
  local name=$1 wav=$2 out=$3
  case $name in
    tarnel_mp4) CMD=("${TR[@]}" -i "$wav" -o "$out.mp4") ;;
    ffmpeg_mp4_def) CMD=("${FF[@]}" "${V_IN[@]}" -i "$wav" -c:v copy -c:a aac -b:a 192k "$out.mp4") ;;
    ffmpeg_mp4_fast)
      CMD=("${FF[@]}" "${V_IN[@]}" -i "$wav" -c:v copy -c:a aac -aac_coder fast -b:a 196608 \
        -ac 2 -ar 48000 "$out.mp4") ;;
    tarnel_mp4_twoloop) CMD=("${TR[@]}" --aac-encoder twoloop -i "$wav" -o "$out.mp4") ;;
    tarnel_mkv) CMD=("${TR[@]}" -i "$wav" -o "$out.mkv") ;;
    ffmpeg_mkv) CMD=("${FF[@]}" "${V_IN[@]}" -i "$wav" -c copy "$out.mkv") ;;
  esac
}

# A run that takes ten times the input's length has hung.
LIMIT=$((DURATION * 10 + 120))
LOAD_BEFORE=$(uptime)
NAMES=(tarnel_mp4 ffmpeg_mp4_def ffmpeg_mp4_fast tarnel_mp4_twoloop tarnel_mkv ffmpeg_mkv)
MP4_NAMES=(tarnel_mp4 ffmpeg_mp4_def ffmpeg_mp4_fast tarnel_mp4_twoloop)
: > times.txt
for ((round = 1; round <= ROUNDS; round++)); do
  for signal in "${SIGNALS[@]}"; do
    count=${#NAMES[@]}
    for ((k = 0; k < count; k++)); do
      name=${NAMES[$(((k + round - 1) % count))]}
      out="out_${signal}_$name"
      rm -f "$out".mp4 "$out".mkv
      echo "== round $round/$ROUNDS, $signal: $name"
      set_cmd "$name" "$signal.wav" "$out"
      if ! "$TIME" -f '%U %S %e %M' -o time.one timeout -s KILL "$LIMIT" "${CMD[@]}" > "$out.log" 2>&1; then
        echo "error: $name failed on $signal:" >&2
        cat "$out.log" >&2
        exit 1
      fi
      echo "$round $signal $name $(tail -n 1 time.one)" >> times.txt
    done
  done
done
LOAD_AFTER=$(uptime)

# ---------------------------------------------------------------------------------------
# Alignment and SNR.
cat > align.py <<'PY'
# Finds the lag of a decoded stream against its source: normalised cross-correlation of
# the left channel, 2048-sample windows at 1/4, 1/2 and 3/4 of the length, lags within
# +-100 ms. Positive: the decoded stream is late by that many samples.
import array, operator, os, sys

def window(path, start, count):
    a = array.array('h')
    with open(path, 'rb') as f:
        f.seek(max(start, 0) * 4)
        a.frombytes(f.read(count * 4))
    return a[0::2]

src, dec = sys.argv[1], sys.argv[2]
n_src = os.path.getsize(src) // 4
n_dec = os.path.getsize(dec) // 4
N, M = 2048, 4800
lags = []
for frac in (0.25, 0.5, 0.75):
    p = int(min(n_src, n_dec) * frac)
    w = window(dec, p, N)
    s = window(src, p - M, N + 2 * M)
    ew = sum(map(operator.mul, w, w))
    best = (-2.0, 0)
    for k in range(-M, M + 1):
        seg = s[M - k:M - k + N]
        es = sum(map(operator.mul, seg, seg))
        r = sum(map(operator.mul, w, seg)) / ((ew * es) ** 0.5 + 1e-9)
        if r > best[0]:
            best = (r, k)
    lags.append(best)
print(n_src, n_dec, ' '.join('%d:%.4f' % (k, r) for r, k in lags))
PY

# asdr of a signal against itself at half the amplitude is 10*log10(4) = 6.02 dB; what
# this FFmpeg prints for it says how to read its figures.
ASDR_SCALE=$(ffmpeg -nostdin -hide_banner -i music.wav -t 5 -filter_complex \
  "[0:a]asplit[a][b];[b]volume=0.5:precision=double[c];[a][c]asdr" -f null - 2>&1 |
  sed -n 's/.*SDR ch0: \([-0-9.]*\) dB.*/\1/p' | awk '{printf "%d", ($1 / 6.0206) + 0.5}')
case $ASDR_SCALE in 1 | 2) ;; *) echo "error: cannot calibrate asdr ($ASDR_SCALE)" >&2; exit 1 ;; esac

SPAN_START=48000                       # 1 s
SPAN_END=$(( (DURATION - 1) * 48000 ))  # D - 1 s
: > quality.txt
for signal in "${SIGNALS[@]}"; do
  ffmpeg -v error -y -i "$signal.wav" -f s16le -ac 2 "$signal.raw"
  for name in "${MP4_NAMES[@]}"; do
    file="out_${signal}_$name.mp4"
    # As `ffmpeg -i file` decodes it, and with the file's own timestamps (audio from 0).
    ffmpeg -v error -y -i "$file" -map 0:a -f s16le -ac 2 dec.raw
    ffmpeg -v error -y -copyts -i "$file" -map 0:a -af atrim=start=0 -f s16le -ac 2 dec_pts.raw
    read -r n_src n_dec lag_info < <(python3 align.py "$signal.raw" dec.raw)
    read -r _ n_dec_pts lag_pts_info < <(python3 align.py "$signal.raw" dec_pts.raw)
    lag=${lag_info%%:*}
    # The SNR over source samples [SPAN_START, SPAN_END), the decoded stream shifted by
    # the lag found.
    sdr=$(ffmpeg -nostdin -hide_banner -f s16le -ar 48000 -ac 2 -i "$signal.raw" \
          -f s16le -ar 48000 -ac 2 -i dec.raw -filter_complex \
          "[0:a]atrim=start_sample=$SPAN_START:end_sample=$SPAN_END,asetpts=PTS-STARTPTS[a];[1:a]atrim=start_sample=$((SPAN_START + lag)):end_sample=$((SPAN_END + lag)),asetpts=PTS-STARTPTS[b];[a][b]asdr" \
          -f null - 2>&1 | sed -n 's/.*SDR ch\([01]\): \([-0-9.inf]*\) dB.*/\2/p' |
          awk -v k="$ASDR_SCALE" '{printf "%.3f ", $1 / k}')
    echo "$signal $name $n_src $n_dec $n_dec_pts $lag_info $lag_pts_info $sdr" >> quality.txt
  done
done
rm -f dec.raw dec_pts.raw music.raw speech.raw

# ---------------------------------------------------------------------------------------
# The report.
CXX_PATH=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$BUILD_DIR/CMakeCache.txt")
COMPILER=$("${CXX_PATH:-c++}" --version | head -n 1)
COMMIT=$(git -C "$ROOT" rev-parse --short HEAD)
if [ -n "$(git -C "$ROOT" status --porcelain --untracked-files=no)" ] ||
   [ -n "$(git -C "$ROOT" status --porcelain | grep '^??' || true)" ]; then
  COMMIT="$COMMIT (with uncommitted changes in the work tree)"
fi
export CPU_MODEL=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)
export NPROC=$(nproc)
export MEM=$(free -h | awk '/^Mem:/ {print $2}')
export FFMPEG_VERSION=$(ffmpeg -version | head -n 1)
export COMPILER COMMIT ROUNDS DURATION LOAD_BEFORE LOAD_AFTER
export SIGNALS_TIMED="${SIGNALS[*]}"
export DATE=$(date -u '+%Y-%m-%d %H:%M UTC')
export TARNEL_JSON=$(cat "out_${SIGNALS[0]}_tarnel_mp4.log")
python3 - "$RESULTS" <<'PY'
import os, statistics, sys
env = os.environ
signals = env['SIGNALS_TIMED'].split()
# rows[signal][name][round] = (CPU s, wall s, peak RSS MiB, user s)
rows = {}
for line in open('times.txt'):
    r, signal, name, u, s, e, m = line.split()
    rows.setdefault(signal, {}).setdefault(name, {})[int(r)] = (
        float(u) + float(s), float(e), int(m) / 1024.0, float(u))
med = statistics.median
def stat(signal, name, i): return med([v[i] for v in rows[signal][name].values()])
def per_round(signal, a, b, i):
    A, B = rows[signal][a], rows[signal][b]
    return [A[r][i] / B[r][i] for r in sorted(A) if r in B and B[r][i] > 0]
def ratio(signal, a, b, i): return med(per_round(signal, a, b, i))

out = []
w = out.append
w('# tarnel-record vs. the ffmpeg command line\n')
w('Written by `bash bench/compare_ffmpeg.sh` on %s. Inputs: %s s of 1280x720 30 fps H.264 '
  '(x264 veryfast, no B-frames, GOP 60, 2.5 Mb/s, Annex-B) and 48 kHz stereo s16 WAVs of real '
  'recordings (below). %s rounds; in each round every command ran once on each signal (%s), '
  'the order of the commands rotated from round to round; every figure is the median over the '
  'rounds, every ratio the median of the per-round ratios of two runs of the same round. '
  'CPU = user + sys of the process and its children (`/usr/bin/time`).\n' % (
      env['DATE'], env['DURATION'], env['ROUNDS'], ', '.join(signals)))
w('| machine | |\n|---|---|')
w('| CPU | %s, nproc %s, shared with other work (see load) |' % (env['CPU_MODEL'], env['NPROC']))
w('| memory | %s |' % env['MEM'])
w('| ffmpeg | %s |' % env['FFMPEG_VERSION'])
w('| compiler | %s |' % env['COMPILER'])
w('| commit | %s |' % env['COMMIT'])
w('| `uptime` before the timed runs | %s |' % env['LOAD_BEFORE'].strip())
w('| `uptime` after | %s |\n' % env['LOAD_AFTER'].strip())
w('The machine has 2 cores and other jobs (builds of other work trees) may run beside the '
  'benchmark: a load average above ~1 means the commands shared the cores. CPU seconds move '
  'less with load than wall time does, and pairing the runs in one round keeps a ratio from '
  'mixing quiet and busy minutes, but neither is immune (caches, frequency).\n')

w('## Inputs\n')
w('Made by `bench/real_audio.sh` from the Debian packages named; each WAV is three sources, '
  'a third of the length each, converted to 48 kHz stereo s16 (mono speech: left, and right at '
  '0.8 of it), looped where a source is shorter than its third, levels untouched.\n')
for signal in ('music', 'speech'):
    w('`%s.wav`:\n' % signal)
    for line in open('%s.wav.sources' % signal):
        w('- %s' % line.strip())
    w('')

desc = {
 'tarnel_mp4': '`tarnel-record --fast --stereo --video-fps 30 -i in.h264 -i SIGNAL.wav -o t.mp4` (own AAC encoder, the default)',
 'ffmpeg_mp4_def': '`ffmpeg -f h264 -framerate 30 -i in.h264 -i SIGNAL.wav -c:v copy -c:a aac -b:a 192k o.mp4` (twoloop)',
 'ffmpeg_mp4_fast': 'same, with `-c:a aac -aac_coder fast -b:a 196608 -ac 2 -ar 48000`',
 'tarnel_mp4_twoloop': 'tarnel_mp4 with `--aac-encoder twoloop` (libavcodec\'s twoloop, 196608 b/s)',
 'tarnel_mkv': '`tarnel-record --fast --stereo ... -o t.mkv` (PCM passes through)',
 'ffmpeg_mkv': '`ffmpeg -f h264 -framerate 30 -i in.h264 -i SIGNAL.wav -c copy o.mkv`',
}
order = ['tarnel_mp4', 'ffmpeg_mp4_def', 'ffmpeg_mp4_fast', 'tarnel_mp4_twoloop', 'tarnel_mkv',
         'ffmpeg_mkv']
w('## Cost per run\n')
w('| run | command |\n|---|---|')
for name in order:
    w('| %s | %s |' % (name, desc[name]))
w('')
w('| signal | run | CPU s | user s | wall s | peak RSS MiB |\n|---|---|---:|---:|---:|---:|')
for signal in signals:
    for name in order:
        w('| %s | %s | %.2f | %.2f | %.2f | %.1f |' % (signal, name, stat(signal, name, 0),
                                                     stat(signal, name, 3), stat(signal, name, 1),
                                                     stat(signal, name, 2)))
w('')
pairs = [('tarnel MP4 / FFmpeg defaults', 'tarnel_mp4', 'ffmpeg_mp4_def'),
         ('tarnel MP4 / FFmpeg fast coder', 'tarnel_mp4', 'ffmpeg_mp4_fast'),
         ('tarnel MP4 / tarnel with twoloop', 'tarnel_mp4', 'tarnel_mp4_twoloop'),
         ('tarnel with twoloop / FFmpeg defaults', 'tarnel_mp4_twoloop', 'ffmpeg_mp4_def'),
         ('MKV, PCM / copy', 'tarnel_mkv', 'ffmpeg_mkv')]
w('## Ratios\n')
w('Medians of the per-round ratios; the CPU ratio of every round follows, round 1 first.\n')
w('| signal | pair | CPU | wall | peak RSS | CPU per round |\n|---|---|---:|---:|---:|---|')
R = {}
for signal in signals:
    for label, a, b in pairs:
        R[signal, a, b] = [ratio(signal, a, b, i) for i in range(3)]
        w('| %s | %s | %.3f | %.3f | %.3f | %s |' % (
            (signal, label) + tuple(R[signal, a, b]) +
            (' '.join('%.3f' % x for x in per_round(signal, a, b, 0)),)))
w('')

# Quality.
Q = {}
for line in open('quality.txt'):
    f = line.split()
    signal, name, n_src, n_dec, n_dec_pts = f[0], f[1], int(f[2]), int(f[3]), int(f[4])
    lags, lags_pts, sdr = f[5:8], f[8:11], [float(x) for x in f[11:13]]
    Q[signal, name] = (n_src, n_dec, n_dec_pts, lags, lags_pts, sdr)
span = (1, int(env['DURATION']) - 1)
w('## Decoded audio vs. the source\n')
w('The MP4s of the last round. Alignment: normalised cross-correlation of the left channel at '
  '1/4, 1/2 and 3/4 of the length (`lag:correlation`, positive lag = decoded audio late by that '
  'many samples). "plain" is the stream as `ffmpeg -i file` decodes it (it shifts the file to '
  'start at 0); "by pts" keeps the file\'s timestamps (`-copyts`, `atrim=start=0`), i.e. what a '
  'player that honours timestamps presents at t >= 0. SNR (10 log10 of source power over error '
  'power) is FFmpeg\'s `asdr`, calibrated, over source seconds %d to %d, the plain decoded '
  'stream shifted by the lag found. SNR is not a perceptual measure: an encoder that shapes its '
  'noise under the masking threshold spends no bits on a higher SNR.\n' % span)
w('| signal | output | source samples | decoded (plain) | decoded (by pts) | lag plain | lag by pts | SNR L dB | SNR R dB |')
w('|---|---|---:|---:|---:|---|---|---:|---:|')
for (signal, name), (n_src, n_dec, n_pts, lags, lags_pts, sdr) in Q.items():
    w('| %s | %s | %d | %d | %d | %s | %s | %.2f | %.2f |' % (
        signal, name, n_src, n_dec, n_pts, ' '.join(lags), ' '.join(lags_pts), sdr[0], sdr[1]))
w('')

# The gate and the rest.
def snr(signal, name): return min(Q[signal, name][5])
yes = lambda ok: '**met**' if ok else '**not met**'
w('## Targets\n')
w('| target | measured | |\n|---|---|---|')
if 'music' in signals:
    cpu = R['music', 'tarnel_mp4', 'ffmpeg_mp4_def'][0]
    w('| CPU of tarnel_mp4 <= 0.3x ffmpeg_mp4_def on real music (paired, this run) | %.3fx '
      '(rounds: %s) | %s |' % (cpu, ' '.join('%.3f' % x for x in per_round(
          'music', 'tarnel_mp4', 'ffmpeg_mp4_def', 0)), yes(cpu <= 0.3)))
for signal in signals:
    if signal != 'music':
        w('| for reference, the same on %s | %.3fx | |' % (
            signal, R[signal, 'tarnel_mp4', 'ffmpeg_mp4_def'][0]))
rss = [R[s_, a, b][2] for s_ in signals for _, a, b in pairs if a.startswith('tarnel') and
       b.startswith('ffmpeg')]
w('| peak RSS below FFmpeg\'s (every tarnel / ffmpeg pair above) | %s | %s |' % (
    ', '.join('%.2fx' % x for x in rss), yes(all(x < 1.0 for x in rss))))
for signal in signals:
    w('| for reference: SNR of tarnel_mp4 vs ffmpeg_mp4_def, %s (lower channel) | %.2f vs %.2f dB | |' % (
        signal, snr(signal, 'tarnel_mp4'), snr(signal, 'ffmpeg_mp4_def')))
w('')

# Where the CPU goes: the MP4 runs minus the MKV runs (same demuxing and video, PCM
# instead of AAC) leave the audio path (resampling, AAC, writing).
w('## Where the CPU goes\n')
w('The MP4 runs minus the MKV runs of the same program (same demuxing and video, PCM passed '
  'through instead of encoded) leave the AAC path, CPU s for the whole input:\n')
w('| signal | tarnel (own) | tarnel (twoloop) | ffmpeg (defaults, twoloop) | ffmpeg (fast) | AAC share of tarnel_mp4 / ffmpeg_mp4_def |')
w('|---|---:|---:|---:|---:|---|')
for signal in signals:
    tm, fm = stat(signal, 'tarnel_mkv', 0), stat(signal, 'ffmpeg_mkv', 0)
    aac = {n: stat(signal, n, 0) - (tm if n.startswith('tarnel') else fm)
           for n in ('tarnel_mp4', 'tarnel_mp4_twoloop', 'ffmpeg_mp4_def', 'ffmpeg_mp4_fast')}
    w('| %s | %.2f | %.2f | %.2f | %.2f | %.0f%% / %.0f%% |' % (
        signal, aac['tarnel_mp4'], aac['tarnel_mp4_twoloop'], aac['ffmpeg_mp4_def'],
        aac['ffmpeg_mp4_fast'], 100 * aac['tarnel_mp4'] / stat(signal, 'tarnel_mp4', 0),
        100 * aac['ffmpeg_mp4_def'] / stat(signal, 'ffmpeg_mp4_def', 0)))
w('')
w('tarnel_mp4 encodes with the recorder\'s own AAC encoder (`sdk/media/aac/`); '
  'tarnel_mp4_twoloop is the same program and pipeline with libavcodec\'s twoloop coder put in '
  'through the encoder factory, so tarnel_mp4_twoloop / ffmpeg_mp4_def is the pipeline\'s '
  'overhead around the same coder (at 196608 b/s instead of 192000).\n')
w('Wall time: `tarnel-record --fast` stays at most 10 s of media ahead of what the recorder '
  'has written, and the recorder writes every 150 ms, so its wall time is set by that pacing '
  'more than by CPU (see the MKV runs).\n')
def length_note(name):
    notes = []
    for s_ in signals:
        ms = (Q[s_, name][1] - Q[s_, name][0]) / 48.0
        notes.append('%.1f ms %s (%s)' % (abs(ms), 'longer' if ms >= 0 else 'shorter', s_))
    return ', '.join(notes)
w('Length of the decoded audio against the source: tarnel %s; FFmpeg (defaults) %s. Longer '
  'is the last AAC frame\'s padding; shorter, audio missing at the end.\n' % (
    length_note('tarnel_mp4'), length_note('ffmpeg_mp4_def')))
w('tarnel-record also re-reads the finished file once to count the packets it holds (its '
  'summary), which is in its figures.\n')
w('tarnel-record\'s own summary of the last timed MP4 run on %s: `%s`\n' % (
    signals[0], env['TARNEL_JSON'].strip()))
open(sys.argv[1], 'w').write('\n'.join(out))
PY
echo "== wrote $RESULTS"
cat "$RESULTS"
