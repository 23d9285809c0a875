#!/usr/bin/env bash
# Compares tarnel-record with the ffmpeg command line on the same inputs and writes
# bench/RESULTS.md.
#
#   bash bench/compare_ffmpeg.sh
#
# Environment (all optional):
#   TARNEL_COMPARE_DIR  work dir for inputs and outputs        (default /tmp/tarnel-compare)
#   ROUNDS              rounds of every command                 (default 3)
#   DURATION            input length in seconds                 (default 300)
#   BUILD_DIR           CMake build dir holding tools/tarnel-record (default build-bench)
#   RESULTS             the markdown file written               (default bench/RESULTS.md)
#
# Inputs (made once per DURATION, kept in the work dir): 1280x720 30 fps H.264 Annex-B
# (x264 veryfast, no B-frames, GOP 60, 2.5 Mb/s) and two 48 kHz stereo s16 WAVs, a
# music-like signal (chords changing every 2 s, a plucked melody, a little noise) and a
# speech-like one (espeak-ng reading a paragraph in a loop; installed when missing).
#
# Every round runs each command once, the order rotated from round to round, each under
# /usr/bin/time -f '%U %S %e %M':
#   tarnel_mp4      tarnel-record --fast --stereo -i in.h264 --video-fps 30 -i music.wav -o t.mp4
#   ffmpeg_mp4_def  ffmpeg ... -c:v copy -c:a aac -b:a 192k             (FFmpeg's defaults)
#   ffmpeg_mp4_same ffmpeg ... -c:v copy -c:a aac -aac_coder fast -b:a 196608 -ac 2 -ar 48000
#                   (the recorder's coder and bit rate; the recorder also checks each
#                   packet and hands loud tones to twoloop, which these inputs never need)
#   tarnel_mkv      tarnel-record into .mkv (PCM passes through)
#   ffmpeg_mkv      ffmpeg ... -c copy out.mkv
# The results are medians over the rounds; ratios are medians of the per-round ratios.
# Decoded audio of the MP4s (music and speech) is checked for alignment against the
# source by cross-correlation and then compared as SNR over one span: FFmpeg's asdr,
# calibrated first (FFmpeg 5.1's prints 20*log10 of its power ratio, later ones 10*log10).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
WORK="${TARNEL_COMPARE_DIR:-/tmp/tarnel-compare}"
ROUNDS="${ROUNDS:-3}"
DURATION="${DURATION:-300}"
BUILD_DIR="${BUILD_DIR:-$ROOT/build-bench}"
RESULTS="${RESULTS:-$ROOT/bench/RESULTS.md}"
TIME=/usr/bin/time

for tool in ffmpeg ffprobe python3 cmake "$TIME"; do
  command -v "$tool" >/dev/null || { echo "error: $tool is needed" >&2; exit 1; }
done

echo "== building tarnel-record in $BUILD_DIR"
if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  cmake -S "$ROOT" -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$BUILD_DIR" -j2 --target tarnel-record >/dev/null
TARNEL="$BUILD_DIR/tools/tarnel-record"

mkdir -p "$WORK"
cd "$WORK"

# ---------------------------------------------------------------------------------------
# Inputs.
STAMP="inputs-${DURATION}s.done"
if [ ! -f "$STAMP" ]; then
  echo "== generating ${DURATION}s inputs in $WORK"
  rm -f inputs-*.done
  ffmpeg -v error -y -f lavfi -i "testsrc2=size=1280x720:rate=30" -t "$DURATION" \
    -c:v libx264 -preset veryfast -bf 0 -g 60 -b:v 2500k -f h264 in.h264

  # Chords C G Am F, two seconds each; a melody note every 250 ms that decays; noise.
  chord='st(0,mod(floor(t/2),4));st(1,if(eq(ld(0),0),261.63,if(eq(ld(0),1),196,if(eq(ld(0),2),220,174.61))));st(2,if(eq(ld(0),2),1.1892,1.2599));st(3,2*ld(1)*pow(2,mod(floor(t*4)*7,12)/12));st(4,exp(-6*mod(t,0.25)))'
  left="$chord;0.12*sin(2*PI*ld(1)*t)+0.08*sin(2*PI*ld(1)*ld(2)*t)+0.08*sin(2*PI*ld(1)*1.4983*t)+ld(4)*(0.2*sin(2*PI*ld(3)*t)+0.08*sin(4*PI*ld(3)*t))+0.012*(2*random(5)-1)"
  right="$chord;0.08*sin(2*PI*ld(1)*t+1)+0.11*sin(2*PI*ld(1)*ld(2)*t)+0.09*sin(2*PI*ld(1)*1.4983*t*1.002)+ld(4)*(0.14*sin(2*PI*ld(3)*t)+0.06*sin(6*PI*ld(3)*t))+0.012*(2*random(6)-1)"
  ffmpeg -v error -y -f lavfi -i "aevalsrc=exprs='$left|$right':s=48000:d=$DURATION" \
    -c:a pcm_s16le music.wav

  if ! command -v espeak-ng >/dev/null; then
    if [ "$(id -u)" = 0 ]; then
      apt-get update -qq && apt-get install -y -qq espeak-ng >/dev/null
    else
      echo "error: espeak-ng is needed: apt-get install espeak-ng" >&2
      exit 1
    fi
  fi
  cat > speech.txt <<'TEXT'
Recording a call on the local disk keeps the voices and the picture together, so that
nobody has to wonder later what was said. Please confirm the meeting for Thursday at
three o'clock, and bring the numbers from last quarter. The quick brown fox jumps over
the lazy dog, while seven silly sheep sit quietly beside the shallow stream. Is it
raining in Vienna, or did the sun finally come out this afternoon? Fifty-four thousand
two hundred and nine people watched the final match on Sunday evening.
TEXT
  espeak-ng -s 165 -w speech_mono.wav -f speech.txt
  # Looped to the full length; the right channel a little quieter than the left.
  ffmpeg -v error -y -stream_loop -1 -i speech_mono.wav \
    -af "aresample=48000,pan=stereo|c0=c0|c1=0.8*c0" -t "$DURATION" -c:a pcm_s16le speech.wav
  rm -f speech_mono.wav
  touch "$STAMP"
fi

# ---------------------------------------------------------------------------------------
# Timed runs.
FF=(ffmpeg -nostdin -v error -y)
V_IN=(-f h264 -framerate 30 -i in.h264)
SAME_AAC=(-c:a aac -aac_coder fast -b:a 196608 -ac 2 -ar 48000)

# Sets CMD to the command of run `name` on audio `wav`, writing `out` + extension.
set_cmd() {
  local name=$1 wav=$2 out=$3
  case $name in
    tarnel_mp4) CMD=("$TARNEL" --fast --stereo --json -i in.h264 --video-fps 30 -i "$wav" -o "$out.mp4") ;;
    ffmpeg_mp4_def) CMD=("${FF[@]}" "${V_IN[@]}" -i "$wav" -c:v copy -c:a aac -b:a 192k "$out.mp4") ;;
    ffmpeg_mp4_same) CMD=("${FF[@]}" "${V_IN[@]}" -i "$wav" -c:v copy "${SAME_AAC[@]}" "$out.mp4") ;;
    tarnel_mkv) CMD=("$TARNEL" --fast --stereo --json -i in.h264 --video-fps 30 -i "$wav" -o "$out.mkv") ;;
    ffmpeg_mkv) CMD=("${FF[@]}" "${V_IN[@]}" -i "$wav" -c copy "$out.mkv") ;;
  esac
}

# A run that takes ten times the input's length has hung.
LIMIT=$((DURATION * 10 + 120))
LOAD_BEFORE=$(cut -d' ' -f1-3 /proc/loadavg)
NAMES=(tarnel_mp4 ffmpeg_mp4_def ffmpeg_mp4_same tarnel_mkv ffmpeg_mkv)
: > times.txt
for ((round = 1; round <= ROUNDS; round++)); do
  count=${#NAMES[@]}
  for ((k = 0; k < count; k++)); do
    name=${NAMES[$(((k + round - 1) % count))]}
    out="out_$name"
    rm -f "$out".mp4 "$out".mkv
    echo "== round $round/$ROUNDS: $name"
    set_cmd "$name" music.wav "$out"
    if ! "$TIME" -f '%U %S %e %M' -o time.one timeout -s KILL "$LIMIT" "${CMD[@]}" > "$out.log" 2>&1; then
      echo "error: $name failed:" >&2
      cat "$out.log" >&2
      exit 1
    fi
    echo "$round $name $(tail -n 1 time.one)" >> times.txt
  done
done

LOAD_AFTER=$(cut -d' ' -f1-3 /proc/loadavg)

# Speech through the three MP4 commands, once, for the quality comparison.
for name in tarnel_mp4 ffmpeg_mp4_def ffmpeg_mp4_same; do
  out="speech_$name"
  rm -f "$out.mp4"
  echo "== speech: $name"
  set_cmd "$name" speech.wav "$out"
  timeout -s KILL "$LIMIT" "${CMD[@]}" > "$out.log" 2>&1 || { cat "$out.log" >&2; exit 1; }
done

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
for signal in music speech; do
  ffmpeg -v error -y -i "$signal.wav" -f s16le -ac 2 "$signal.raw"
  for name in tarnel_mp4 ffmpeg_mp4_def ffmpeg_mp4_same; do
    if [ "$signal" = music ]; then file="out_$name.mp4"; else file="speech_$name.mp4"; fi
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
export DATE=$(date -u '+%Y-%m-%d %H:%M UTC')
export TARNEL_JSON=$(cat out_tarnel_mp4.log)
python3 - "$RESULTS" <<'PY'
import os, statistics, sys
rows = {}
for line in open('times.txt'):
    r, name, u, s, e, m = line.split()
    rows.setdefault(name, {})[int(r)] = (float(u) + float(s), float(e), int(m) / 1024.0, float(u))
med = lambda xs: statistics.median(xs)
def stat(name, i): return med([v[i] for v in rows[name].values()])
def ratio(a, b, i):
    return med([rows[a][r][i] / rows[b][r][i] for r in rows[a] if r in rows[b] and rows[b][r][i] > 0])

env = os.environ
out = []
w = out.append
w('# tarnel-record vs. the ffmpeg command line\n')
w('Written by `bash bench/compare_ffmpeg.sh` on %s. Inputs: %s s of 1280x720 30 fps H.264 '
  '(x264 veryfast, no B-frames, GOP 60, 2.5 Mb/s, Annex-B) and 48 kHz stereo s16 WAV; the '
  'timed runs use the music-like WAV. %s rounds, commands rotated from round to round; '
  'every figure is the median over the rounds, every ratio the median of the per-round '
  'ratios. CPU = user + sys.\n' % (env['DATE'], env['DURATION'], env['ROUNDS']))
w('| machine | |\n|---|---|')
w('| CPU | %s, nproc %s |' % (env['CPU_MODEL'], env['NPROC']))
w('| memory | %s |' % env['MEM'])
w('| ffmpeg | %s |' % env['FFMPEG_VERSION'])
w('| compiler | %s |' % env['COMPILER'])
w('| commit | %s |' % env['COMMIT'])
w('| load average (1/5/15 min) | %s before the timed runs, %s after |\n' % (
    env['LOAD_BEFORE'], env['LOAD_AFTER']))

desc = {
 'tarnel_mp4': '`tarnel-record --fast --stereo -i in.h264 --video-fps 30 -i music.wav -o t.mp4`',
 'ffmpeg_mp4_def': '`ffmpeg -f h264 -framerate 30 -i in.h264 -i music.wav -c:v copy -c:a aac -b:a 192k o.mp4`',
 'ffmpeg_mp4_same': 'same, with `-c:a aac -aac_coder fast -b:a 196608 -ac 2 -ar 48000`',
 'tarnel_mkv': '`tarnel-record --fast --stereo ... -o t.mkv` (PCM passes through)',
 'ffmpeg_mkv': '`ffmpeg -f h264 -framerate 30 -i in.h264 -i music.wav -c copy o.mkv`',
}
w('## Cost per run\n')
w('| run | command | CPU s | user s | wall s | peak RSS MiB |\n|---|---|---:|---:|---:|---:|')
for name in ['tarnel_mp4', 'ffmpeg_mp4_def', 'ffmpeg_mp4_same', 'tarnel_mkv', 'ffmpeg_mkv']:
    w('| %s | %s | %.2f | %.2f | %.2f | %.1f |' % (name, desc[name], stat(name, 0), stat(name, 3),
                                                stat(name, 1), stat(name, 2)))
w('')
w('## Ratios tarnel / ffmpeg\n')
w('| pair | CPU | wall | peak RSS |\n|---|---:|---:|---:|')
pairs = [('MP4 vs FFmpeg defaults', 'tarnel_mp4', 'ffmpeg_mp4_def'),
         ('MP4 vs same AAC settings', 'tarnel_mp4', 'ffmpeg_mp4_same'),
         ('MKV, PCM / copy', 'tarnel_mkv', 'ffmpeg_mkv')]
R = {}
for label, a, b in pairs:
    R[a, b] = [ratio(a, b, i) for i in range(3)]
    w('| %s | %.3f | %.3f | %.3f |' % ((label,) + tuple(R[a, b])))
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
w('Alignment: normalised cross-correlation of the left channel at 1/4, 1/2 and 3/4 of the '
  'length (`lag:correlation`, positive lag = decoded audio late by that many samples). '
  '"plain" is the stream as `ffmpeg -i file` decodes it (it shifts the file to start at 0); '
  '"by pts" keeps the file\'s timestamps (`-copyts`, `atrim=start=0`), i.e. what a player '
  'that honours timestamps presents at t >= 0. SNR (10 log10 of source power over error '
  'power) is FFmpeg\'s `asdr`, calibrated, over source seconds %d to %d, the plain decoded '
  'stream shifted by the lag found.\n' % span)
w('| signal | output | source samples | decoded (plain) | decoded (by pts) | lag plain | lag by pts | SNR L dB | SNR R dB |')
w('|---|---|---:|---:|---:|---|---|---:|---:|')
for (signal, name), (n_src, n_dec, n_pts, lags, lags_pts, sdr) in Q.items():
    w('| %s | %s | %d | %d | %d | %s | %s | %.2f | %.2f |' % (
        signal, name, n_src, n_dec, n_pts, ' '.join(lags), ' '.join(lags_pts), sdr[0], sdr[1]))
w('')

# Targets.
def snr(signal, name): return min(Q[signal, name][5])
quality_ok = all(snr(s, 'tarnel_mp4') >= snr(s, 'ffmpeg_mp4_def') - 0.1 for s in ('music', 'speech'))
cpu_def = R['tarnel_mp4', 'ffmpeg_mp4_def'][0]
cpu_same = R['tarnel_mp4', 'ffmpeg_mp4_same'][0]
rss_ok = all(R[a, b][2] < 1.0 for _, a, b in pairs)
yes = lambda ok: '**met**' if ok else '**not met**'
w('## Targets\n')
w('| target | measured | |\n|---|---|---|')
w('| CPU <= 0.5x FFmpeg defaults, decoded SNR no worse (within 0.1 dB, lower channel) | '
  '%.3fx; SNR music %.2f vs %.2f dB, speech %.2f vs %.2f dB | %s |' % (
    cpu_def, snr('music', 'tarnel_mp4'), snr('music', 'ffmpeg_mp4_def'),
    snr('speech', 'tarnel_mp4'), snr('speech', 'ffmpeg_mp4_def'), yes(cpu_def <= 0.5 and quality_ok)))
w('| CPU <= 1.0x FFmpeg with the same AAC settings | %.3fx | %s |' % (cpu_same, yes(cpu_same <= 1.0)))
w('| peak RSS below FFmpeg\'s (MP4 defaults, MP4 same, MKV) | %s | %s |' % (
    ', '.join('%.2fx' % R[a, b][2] for _, a, b in pairs), yes(rss_ok)))
w('')

# Where the CPU goes: the MP4 runs minus the MKV runs (same demuxing and video, PCM
# instead of AAC) leave the audio path (resampling, AAC, writing).
t_aac = stat('tarnel_mp4', 0) - stat('tarnel_mkv', 0)
f_aac = stat('ffmpeg_mp4_same', 0) - stat('ffmpeg_mkv', 0)
w('## Where the CPU goes\n')
w('| | tarnel | ffmpeg (same AAC settings) |\n|---|---:|---:|')
w('| MP4 run, CPU s | %.2f | %.2f |' % (stat('tarnel_mp4', 0), stat('ffmpeg_mp4_same', 0)))
w('| MKV run without AAC, CPU s | %.2f | %.2f |' % (stat('tarnel_mkv', 0), stat('ffmpeg_mkv', 0)))
w('| difference: the AAC path, CPU s | %.2f | %.2f |' % (t_aac, f_aac))
w('| AAC share of the MP4 run | %.0f%% | %.0f%% |' % (100 * t_aac / stat('tarnel_mp4', 0),
                                                   100 * f_aac / stat('ffmpeg_mp4_same', 0)))
w('')
w('Both sides encode with libavcodec\'s native AAC encoder. FFmpeg\'s default coder is '
  'twoloop; the recorder runs the fast coder and decodes every packet to check it (a loud tone '
  'that the fast coder would clip goes to twoloop instead; these inputs never trigger it). '
  'The AAC path costs %.2f CPU s here against %.2f s for ffmpeg with the same coder; it is '
  '%.0f%% of FFmpeg\'s default run.\n' % (
    t_aac, f_aac, 100 * (stat('ffmpeg_mp4_def', 0) - stat('ffmpeg_mkv', 0)) / stat('ffmpeg_mp4_def', 0)))
w('Wall time: `tarnel-record --fast` stays at most 10 s of media ahead of what the recorder '
  'has written, and the recorder writes every 150 ms, so its wall time is set by that pacing '
  'more than by CPU (see the MKV run: %.2f s CPU in %.2f s).\n' % (stat('tarnel_mkv', 0),
                                                                  stat('tarnel_mkv', 1)))
def length_note(name):
    notes = []
    for s_ in ('music', 'speech'):
        ms = (Q[s_, name][1] - Q[s_, name][0]) / 48.0
        notes.append('%.1f ms %s (%s)' % (abs(ms), 'longer' if ms >= 0 else 'shorter', s_))
    return ', '.join(notes)
w('Length of the decoded audio against the source: tarnel %s; FFmpeg (defaults) %s. Longer '
  'is the last AAC frame\'s padding; shorter, audio missing at the end.\n' % (
    length_note('tarnel_mp4'), length_note('ffmpeg_mp4_def')))
w('tarnel-record also re-reads the finished file once to count the packets it holds (its '
  'summary), which is in its figures.\n')
w('tarnel-record\'s own summary of the last timed MP4 run: `%s`\n' % env['TARNEL_JSON'].strip())
open(sys.argv[1], 'w').write('\n'.join(out))
PY
echo "== wrote $RESULTS"
cat "$RESULTS"
