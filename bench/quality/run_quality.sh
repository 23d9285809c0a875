#!/usr/bin/env bash
# Encodes every corpus item with each coder, decodes it with libavcodec and FAAD2 and
# measures it against the original with nmr; writes OUT_DIR/quality.md and plots.
#
#   bash bench/quality/run_quality.sh CORPUS_DIR OUT_DIR [coders...]   (default: tarnel twoloop fast)
#
# CORPUS_DIR is what make_corpus.sh wrote: stereo/*.wav run at STEREO_BITRATE (196608 b/s,
# the recorder's), mono/*.wav at MONO_BITRATE (64000 b/s: the recorder passes no rate for
# one channel, so the encoder's default applies; 71680 is only what it reports). Coders are aac_encode_wav's: tarnel (ours), twoloop, fast.
#
# Per item and coder:
#   1. aac_encode_wav -> ADTS; it prints the priming and the CPU time spent in Encode().
#   2. Decoded by ffmpeg (libavcodec) and by faad (FAAD2); anything either prints on
#      stderr or a failing exit is a decode error, and the row says so.
#   3. The decoders must agree: the SNR between the two outputs (aligned by nmr's lag
#      search: FAAD2 drops the first frame, so it is 1024 samples early) above 60 dB.
#      Noise-substituted bands (PNS, used by the two-loop coder above 4 kHz) are filled
#      by each decoder with its own random noise, so where the full band does not agree
#      the outputs are compared again below 2 kHz: "PNS" in the table means they agree
#      there and differ only above, "NO" that they differ below 2 kHz too.
#   4. The libavcodec output, less the printed priming (atrim), is measured with nmr
#      against the item at lag 0 (nmr still reports the lag its search finds: a non-zero
#      one is listed as a warning), with 2048-sample blocks and again with 512-sample ones:
#      long blocks let an attack mask the pre-echo before it, short ones show it (see
#      nmr_model.h), so the table gives the worst 1% and the maximum of both.
# Outputs: OUT_DIR/quality.md (one row per item and coder, a summary per item group),
# OUT_DIR/results.jsonl (everything measured), OUT_DIR/nmr_<item>.png (per-block NMR of
# the left channel over time, every coder) for music_orchestral and castanets,
# OUT_DIR/work/<layout>/<item>/<coder>.{aac,csv} (the streams and per-block figures).
#
# Environment: BUILD_DIR (default build-bench, Release), STEREO_BITRATE, MONO_BITRATE,
# PLOT_ITEMS (default "music_orchestral castanets").
set -euo pipefail

if [ $# -lt 2 ]; then
  echo "usage: bash bench/quality/run_quality.sh CORPUS_DIR OUT_DIR [coders...]" >&2
  exit 2
fi
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
CORPUS="$(cd "$1" && pwd)"
mkdir -p "$2"
OUT="$(cd "$2" && pwd)"
shift 2
CODERS=("$@")
[ ${#CODERS[@]} -gt 0 ] || CODERS=(tarnel twoloop fast)
BUILD_DIR="${BUILD_DIR:-$ROOT/build-bench}"
STEREO_BITRATE="${STEREO_BITRATE:-196608}"
MONO_BITRATE="${MONO_BITRATE:-64000}"
PLOT_ITEMS="${PLOT_ITEMS:-music_orchestral castanets}"

bash "$ROOT/scripts/install-deps.sh" ffmpeg faad gnuplot-nox python3 cmake

echo "== building nmr and aac_encode_wav in $BUILD_DIR"
if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  cmake -S "$ROOT" -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$BUILD_DIR" -j2 --target nmr aac_encode_wav >/dev/null
NMR="$BUILD_DIR/bench/quality/nmr"
ENCODE="$BUILD_DIR/bench/quality/aac_encode_wav"

# json_get FILE KEY: one top-level value of a one-object JSON file.
json_get() { python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))[sys.argv[2]])' "$1" "$2"; }

# Eighth-order Butterworth at 2 kHz: 48 dB down at 4 kHz, where noise substitution starts.
LOWPASS="lowpass=f=2000:p=2,lowpass=f=2000:p=2,lowpass=f=2000:p=2,lowpass=f=2000:p=2"
RESULTS="$OUT/results.jsonl"
: > "$RESULTS"
for layout in stereo mono; do
  [ -d "$CORPUS/$layout" ] || continue
  bitrate=$STEREO_BITRATE
  [ $layout = mono ] && bitrate=$MONO_BITRATE
  for wav in "$CORPUS/$layout"/*.wav; do
    item=$(basename "$wav" .wav)
    work="$OUT/work/$layout/$item"
    mkdir -p "$work"
    for coder in "${CODERS[@]}"; do
      echo "== $layout $item $coder"
      aac="$work/$coder.aac"
      "$ENCODE" --coder "$coder" --bitrate "$bitrate" "$wav" "$aac" > "$work/encode.json" \
        2> "$work/encode.err"
      priming=$(json_get "$work/encode.json" priming_samples)

      errors=""
      if ! ffmpeg -nostdin -v error -y -i "$aac" -c:a pcm_f32le "$work/ff.wav" 2> "$work/ff.err" ||
         [ -s "$work/ff.err" ]; then
        errors+="libavcodec: $(head -c 200 "$work/ff.err" | tr '\n|' '  ') "
      fi
      if ! faad -q -b 4 -o "$work/faad.wav" "$aac" > "$work/faad.err" 2>&1 ||
         grep -qi error "$work/faad.err"; then
        errors+="faad: $(head -c 200 "$work/faad.err" | tr '\n|' '  ')"
      fi

      # FAAD2 gives mono streams as two identical channels (it cannot rule out parametric
      # stereo); keep the first.
      if [ $layout = mono ] && [ -s "$work/faad.wav" ]; then
        ffmpeg -nostdin -v error -y -i "$work/faad.wav" -af "pan=mono|c0=c0" -c:a pcm_f32le \
          "$work/faad_mono.wav"
        mv "$work/faad_mono.wav" "$work/faad.wav"
      fi
      agree_json="$work/agree.json"
      echo '{}' > "$agree_json"
      agree_low=""
      if [ -s "$work/faad.wav" ] && [ -s "$work/ff.wav" ]; then
        "$NMR" "$work/ff.wav" "$work/faad.wav" --json > "$agree_json"
        if python3 -c 'import json,sys; sys.exit(json.load(open(sys.argv[1]))["snr_db"] <= 60)' \
             "$agree_json"; then
          :
        else
          ffmpeg -nostdin -v error -y -i "$work/ff.wav" -af "$LOWPASS" -c:a pcm_f32le \
            "$work/ff_low.wav"
          ffmpeg -nostdin -v error -y -i "$work/faad.wav" -af "$LOWPASS" -c:a pcm_f32le \
            "$work/faad_low.wav"
          agree_low=$("$NMR" "$work/ff_low.wav" "$work/faad_low.wav" --json |
                      python3 -c 'import json,sys; print(json.load(sys.stdin)["snr_db"])')
        fi
      fi

      measure_json="$work/measure.json"
      echo '{}' > "$measure_json"
      if [ -s "$work/ff.wav" ]; then
        ffmpeg -nostdin -v error -y -i "$work/ff.wav" -af "atrim=start_sample=$priming" \
          -c:a pcm_f32le "$work/ff_cut.wav"
        "$NMR" "$wav" "$work/ff_cut.wav" --lag 0 --json --csv "$work/$coder.csv" > "$measure_json"
        "$NMR" "$wav" "$work/ff_cut.wav" --lag 0 --json --block 512 > "$work/measure_512.json"
      else
        echo '{}' > "$work/measure_512.json"
      fi
      python3 - "$work/encode.json" "$measure_json" "$agree_json" "$work/measure_512.json" \
          "$layout" "$item" "$errors" "$agree_low" >> "$RESULTS" <<'PY'
import json, sys
enc, measure, agree, short = (json.load(open(p)) for p in sys.argv[1:5])
layout, item, errors, agree_low = sys.argv[5:9]
row = {'layout': layout, 'item': item, 'decode_errors': errors.strip(),
       'encode': enc, 'measure': measure, 'measure_512': short,
       'decoders_snr_db': agree.get('snr_db'), 'decoders_lag': agree.get('lag_found'),
       'decoders_snr_below_2k_db': float(agree_low) if agree_low else None}
print(json.dumps(row))
PY
      rm -f "$work"/ff.wav "$work"/faad.wav "$work"/ff_cut.wav "$work"/ff_low.wav "$work"/faad_low.wav
    done
  done
done

echo "== plots"
for item in $PLOT_ITEMS; do
  [ -d "$OUT/work/stereo/$item" ] || continue
  plot="plot"
  for coder in "${CODERS[@]}"; do
    plot+=" '$OUT/work/stereo/$item/$coder.csv' every ::1 using (\$1 == 0 ? \$2 : 1/0):3 with lines title '$coder',"
  done
  gnuplot <<GP
set terminal pngcairo size 1200,500 noenhanced
set output '$OUT/nmr_$item.png'
set datafile separator ','
set title 'Per-block NMR, left channel: $item (stereo, $STEREO_BITRATE b/s)'
set xlabel 'time (s)'
set ylabel 'NMR (dB, 2048-sample blocks)'
set grid
set yrange [-60<*:5<*]
set key outside right
${plot%,}, 0 with lines dashtype 2 lc rgb 'black' title '0 dB'
GP
done

echo "== report"
export STEREO_BITRATE MONO_BITRATE
export FFMPEG_VERSION=$(ffmpeg -version | head -n 1)
export FAAD_VERSION=$(faad -h 2>&1 | sed -n 's/.*\(MPEG-4 AAC Decoder V[0-9.]*\).*/\1/p' | head -n 1)
COMMIT=$(git -C "$ROOT" rev-parse --short HEAD)
if [ -n "$(git -C "$ROOT" status --porcelain -- bench/quality sdk)" ]; then
  COMMIT="$COMMIT (with uncommitted changes under bench/quality or sdk)"
fi
export COMMIT
export DATE=$(date -u '+%Y-%m-%d %H:%M UTC')
export CODERS_LIST="${CODERS[*]}"
python3 - "$RESULTS" "$OUT/quality.md" <<'PY'
import json, os, statistics, sys
rows = [json.loads(line) for line in open(sys.argv[1])]
env = os.environ
coders = env['CODERS_LIST'].split()
out = []
w = out.append

def f(v, fmt='%.1f'):
    return '-' if v is None else fmt % v

def group(item):
    for prefix in ('music', 'speech'):
        if item.startswith(prefix):
            return prefix
    return 'synthetic'

w('# AAC coder quality\n')
w('Written by `bench/quality/run_quality.sh` on %s at commit %s; %s; FAAD2 %s. Stereo items '
  'at %s b/s, mono at %s b/s. NMR: `nmr` (PEAQ\'s FFT ear model, 2048-sample blocks, 92 dB SPL '
  'for full scale; see bench/README.md): "NMR" is the total over all blocks (10 log10 of the '
  'mean linear block NMR), "worst 1%%" the 99th percentile of block NMRs, "max" the worst '
  'block; below 0 dB the noise is masked. SNRs over the whole item, per 1024-sample frame '
  '(segmental, frames above -60 dBFS, each clamped to [-10, 80] dB) and the lowest among loud '
  'frames (RMS above -20 dBFS). CPU: thread CPU time inside Encode() per second of audio. '
  'Decoders: SNR between the libavcodec and FAAD2 outputs. "512": the same NMR with '
  '512-sample blocks, which show pre-echo that longer blocks let the attack mask. Group '
  'means leave out the digital silence item.\n' % (
      env['DATE'], env['COMMIT'], env['FFMPEG_VERSION'], env['FAAD_VERSION'] or '?',
      env['STEREO_BITRATE'], env['MONO_BITRATE']))

warnings = []
for layout in ('stereo', 'mono'):
    lrows = [r for r in rows if r['layout'] == layout]
    if not lrows:
        continue
    w('## %s\n' % layout.capitalize())
    w('| item | coder | NMR dB | worst 1% dB | max dB | blocks > 0 dB | 512: worst 1% / max dB | '
      'SNR dB | seg SNR dB | lowest loud-frame SNR dB | CPU ms/s | decoders agree |')
    w('|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---|')
    for r in lrows:
        m, e = r['measure'], r['encode']
        if r['decode_errors']:
            warnings.append('%s %s %s: decode errors: %s' % (layout, r['item'], e['coder'],
                                                             r['decode_errors']))
        if m and m.get('lag_found', 0) != 0:
            warnings.append('%s %s %s: lag search found %d after cutting the priming' % (
                layout, r['item'], e['coder'], m['lag_found']))
        snr = r['decoders_snr_db']
        if snr is None:
            agree = 'no output'
        elif snr > 60:
            agree = 'yes (%.0f dB)' % snr
        elif r['decoders_snr_below_2k_db'] is not None and r['decoders_snr_below_2k_db'] > 60:
            agree = 'PNS (%.0f dB; %.0f below 2 kHz)' % (snr, r['decoders_snr_below_2k_db'])
        else:
            agree = 'NO (%.0f dB)' % snr
        if not m:
            w('| %s | %s | decode failed | | | | | | | | | %s |' % (r['item'], e['coder'], agree))
            continue
        s = r['measure_512']
        w('| %s | %s | %.1f | %.1f | %.1f | %.1f%% | %.1f / %.1f | %.1f | %s | %s | %.1f | %s |' % (
            r['item'], e['coder'], m['nmr_total_db'], m['nmr_p99_db'], m['nmr_max_db'],
            100 * m['blocks_above_0db'], s['nmr_p99_db'], s['nmr_max_db'], m['snr_db'],
            f(m['segmental_snr_db']),
            f(m['min_loud_frame_snr_db']), e['encode_cpu_ms_per_audio_s'], agree))
    w('')
    w('### %s: means over each group of items\n' % layout.capitalize())
    w('| group | items | ' + ' | '.join('%s NMR / worst 1%% / SNR' % c for c in coders) +
      ' | ' + ' | '.join('%s worse than %s (NMR > +0.5 dB)' % (c, coders[0]) for c in coders[1:]) + ' |')
    w('|---|---:|' + '---:|' * len(coders) + '---:|' * (len(coders) - 1))
    for g in ('music', 'speech', 'synthetic'):
        # Digital silence stays at the floor whatever the coder does right; it would only
        # drag the means down.
        items = sorted({r['item'] for r in lrows if group(r['item']) == g and r['item'] != 'silence'})
        if not items:
            continue
        by = {(r['item'], r['encode']['coder']): r['measure'] for r in lrows}
        cells = []
        for c in coders:
            ms = [by.get((i, c)) for i in items]
            ms = [m for m in ms if m]
            cells.append('%.1f / %.1f / %.1f' % (statistics.mean(m['nmr_total_db'] for m in ms),
                                               statistics.mean(m['nmr_p99_db'] for m in ms),
                                               statistics.mean(m['snr_db'] for m in ms)))
        worse = []
        for c in coders[1:]:
            n = sum(1 for i in items if by.get((i, c)) and by.get((i, coders[0])) and
                    by[(i, c)]['nmr_total_db'] > by[(i, coders[0])]['nmr_total_db'] + 0.5)
            worse.append('%d of %d' % (n, len(items)))
        w('| %s | %d | %s | %s |' % (g, len(items), ' | '.join(cells), ' | '.join(worse)))
    w('')
if warnings:
    w('## Warnings\n')
    for line in warnings:
        w('- ' + line)
    w('')
open(sys.argv[2], 'w').write('\n'.join(out))
PY
echo "wrote $OUT/quality.md"
