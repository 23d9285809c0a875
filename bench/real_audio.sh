#!/usr/bin/env bash
# Writes real recordings as one 48 kHz stereo s16 WAV of a given length, for the
# benchmarks (compare_ffmpeg.sh, concurrent_benchmark).
#
#   bash bench/real_audio.sh music SECONDS OUT.wav
#   bash bench/real_audio.sh speech SECONDS OUT.wav
#
# Each kind is made of three sources, one after the other, each taking a third of the
# length (looped when it is shorter than that):
#   music   frozen-bubble-data   frozen-mainzik-1p.ogg (pop with drums, 44.1 kHz)
#           wesnoth-1.16-music   heroes_rite.ogg (orchestral, quiet start, loud end, 44.1 kHz)
#           singularity-music    Awakening.ogg (electronic, 48 kHz)
#   speech  alsa-utils           the eight voice clips of /usr/share/sounds/alsa (not Noise.wav)
#           asterisk-core-sounds-en-g722  Allison's prompts (16 kHz G.722), in name order
#           espeak-ng            a paragraph read at 165 words per minute
# Mono speech goes to the left channel and, at 0.8 of it, to the right. Nothing is
# normalised: the levels are the recordings' own.
#
# Missing packages are installed with apt-get when running as root; otherwise the
# command to run is printed and the script fails. Next to OUT.wav it writes
# OUT.wav.sources: one line per source with package, version, file and seconds used.
set -euo pipefail

usage() {
  echo "usage: $0 music|speech SECONDS OUT.wav" >&2
  exit 2
}
[ $# -eq 3 ] || usage
KIND=$1
SECONDS_WANTED=$2
OUT=$3
[[ $SECONDS_WANTED =~ ^[0-9]+$ ]] && [ "$SECONDS_WANTED" -ge 3 ] || usage

RATE=48000
ALSA_DIR=/usr/share/sounds/alsa
ALLISON_DIR=/usr/share/asterisk/sounds/en_US_f_Allison
case $KIND in
  music)
    PACKAGES=(frozen-bubble-data wesnoth-1.16-music singularity-music)
    FILES=(/usr/share/games/frozen-bubble/snd/frozen-mainzik-1p.ogg
           /usr/share/games/wesnoth/1.16/data/core/music/heroes_rite.ogg
           /usr/share/games/singularity/music/Awakening.ogg)
    ;;
  speech)
    PACKAGES=(alsa-utils asterisk-core-sounds-en-g722 espeak-ng)
    ;;
  *) usage ;;
esac

bash "$(dirname "${BASH_SOURCE[0]}")/../scripts/install-deps.sh" "${PACKAGES[@]}" ffmpeg >&2

TMP=$(mktemp -d "${TMPDIR:-/tmp}/tarnel-real-audio-XXXXXX")
trap 'rm -rf "$TMP"' EXIT

# Source k of 3 takes samples [total*k/3, total*(k+1)/3) of the output.
TOTAL=$((SECONDS_WANTED * RATE))
share() { echo $((TOTAL * ($1 + 1) / 3 - TOTAL * $1 / 3)); }

# piece K INPUT_ARGS... : the input looped and cut to source K's share, 48 kHz stereo s16.
piece() {
  local k=$1 samples
  shift
  samples=$(share "$k")
  ffmpeg -nostdin -v error -y -stream_loop -1 "$@" \
    -af "aresample=$RATE,pan=stereo|c0=c0|c1=${PAN_RIGHT},atrim=end_sample=$samples" \
    -t $((samples / RATE + 2)) -c:a pcm_s16le "$TMP/piece$k.wav"
}

# note K PACKAGE WHAT: the provenance line of source K.
note() {
  awk -v p="$2" -v v="$(dpkg-query -W -f='${Version}' "$2")" -v w="$3" -v a="$((TOTAL * $1 / 3))" \
      -v b="$((TOTAL * ($1 + 1) / 3))" -v r=$RATE \
      'BEGIN { printf "%s %s: %s; output seconds %.1f-%.1f\n", p, v, w, a / r, b / r }' >> "$TMP/sources"
}
: > "$TMP/sources"

if [ "$KIND" = music ]; then
  PAN_RIGHT=c1
  for k in 0 1 2; do
    [ -f "${FILES[$k]}" ] || { echo "error: ${FILES[$k]} not found" >&2; exit 1; }
    piece "$k" -i "${FILES[$k]}"
    note "$k" "${PACKAGES[$k]}" "${FILES[$k]} from its start"
  done
else
  PAN_RIGHT=0.8*c0
  : > "$TMP/alsa.list"
  for f in "$ALSA_DIR"/{Front_Center,Front_Left,Front_Right,Rear_Center,Rear_Left,Rear_Right,Side_Left,Side_Right}.wav; do
    [ -f "$f" ] || { echo "error: $f not found" >&2; exit 1; }
    echo "file '$f'" >> "$TMP/alsa.list"
  done
  ls "$ALLISON_DIR"/*.g722 >/dev/null || { echo "error: no prompts in $ALLISON_DIR" >&2; exit 1; }
  for f in "$ALLISON_DIR"/*.g722; do echo "file '$f'"; done > "$TMP/allison.list"
  cat > "$TMP/speech.txt" <<'TEXT'
Recording a call on the local disk keeps the voices and the picture together, so that
nobody has to wonder later what was said. Please confirm the meeting for Thursday at
three o'clock, and bring the numbers from last quarter. The quick brown fox jumps over
the lazy dog, while seven silly sheep sit quietly beside the shallow stream. Is it
raining in Vienna, or did the sun finally come out this afternoon? Fifty-four thousand
two hundred and nine people watched the final match on Sunday evening.
TEXT
  espeak-ng -s 165 -w "$TMP/espeak.wav" -f "$TMP/speech.txt"
  piece 0 -f concat -safe 0 -i "$TMP/alsa.list"
  piece 1 -f concat -safe 0 -i "$TMP/allison.list"
  piece 2 -i "$TMP/espeak.wav"
  note 0 alsa-utils "$ALSA_DIR/{Front,Rear}_{Center,Left,Right}.wav, Side_{Left,Right}.wav"
  note 1 asterisk-core-sounds-en-g722 "$ALLISON_DIR/*.g722 in name order"
  note 2 espeak-ng "espeak-ng -s 165 reading the paragraph in bench/real_audio.sh"
fi

for k in 0 1 2; do
  got=$(ffprobe -v error -select_streams a -count_packets -show_entries stream=duration_ts \
        -of csv=p=0 "$TMP/piece$k.wav")
  [ "$got" = "$(share "$k")" ] || {
    echo "error: source $k gave $got samples, not $(share "$k")" >&2
    exit 1
  }
  echo "file '$TMP/piece$k.wav'"
done > "$TMP/pieces.list"
ffmpeg -nostdin -v error -y -f concat -safe 0 -i "$TMP/pieces.list" -c:a pcm_s16le "$OUT.tmp.wav"
mv "$OUT.tmp.wav" "$OUT"
cp "$TMP/sources" "$OUT.sources"
