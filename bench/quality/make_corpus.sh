#!/usr/bin/env bash
# Writes the listening corpus for the AAC coder quality runs (run_quality.sh):
#
#   bash bench/quality/make_corpus.sh OUTDIR
#
# OUTDIR/stereo/NAME.wav  48 kHz s16 stereo, 10-16 s each (mono sources on both channels)
# OUTDIR/mono/NAME.wav    the same items as 48 kHz s16 mono ((L + R) / 2)
# OUTDIR/SOURCES.md       where every item comes from: package, version, file, licence
#
# Real recordings come from Debian packages that nobody on this team wrote, installed
# with apt-get when run as root (otherwise the script prints the apt-get line and stops).
# Levels are left as the recordings have them: the ear model in nmr is calibrated to
# full scale = 92 dB SPL, so loudness is part of the test.
#
#   item                     package (licence)                       file, excerpt
#   music_orchestral         wesnoth-1.16-music (GPL-2+)             battle-epic.ogg, 45-60 s
#   music_pop_drums          frozen-bubble-data (GPL-2)              frozen-mainzik-1p.ogg, 60-75 s
#   music_electronic         singularity-music (CC BY-SA 3.0)        Media Threat.ogg, 60-75 s
#   music_solo_guitar        sonic-pi-samples (CC0; Sub-d)           guit_em9.flac + guit_e_fifths.flac
#   music_tabla              sonic-pi-samples (CC0; lezaarth)        loop_tabla.flac (whole)
#   music_drum_break         sonic-pi-samples (CC0; gowers)          loop_amen_full.flac, twice
#   speech_alsa              alsa-utils (GPL-2)                      /usr/share/sounds/alsa/{Front,Rear,Side}_*.wav
#   speech_allison           asterisk-core-sounds-en-g722 (CC BY-SA 3.0; Allison Smith)
#                                                                    demo-congrats.g722, 0-15 s (16 kHz)
# The Ogg/FLAC sources are lossy (Vorbis, 96-112 kb/s: little above 16 kHz) or lossless
# (FLAC, 44.1 kHz); all are resampled to 48 kHz by FFmpeg.
#
# Synthetic speech: espeak-ng, an American male voice and a British female variant.
# Synthetic hard cases (FFmpeg's aevalsrc), 10-12 s each:
#   sine_{100,1k,5k,10k,15k}  -1 dBFS tones               sweep       20 Hz-20 kHz log, -3 dBFS
#   tone_over_chord   1 kHz at -6 dBFS over a C major chord at -40 dBFS per note
#   clicks            0.5 ms raised-cosine clicks at -1 dBFS, one a second, after silence
#   castanets         decaying noise bursts with a 2.6 kHz ring, 2 s of them, 1 s of silence
#   white_noise       full-scale uniform white noise, independent channels
#   square            440 Hz square wave at -6 dBFS (not band-limited)
#   dtmf              the 12 DTMF digits, 100 ms on / 100 ms off, at -3 dBFS peak
#   silence           digital silence
#   silence_to_loud   1 s of digital silence, 1 s of loud chord and noise, alternating
set -euo pipefail

if [ $# -ne 1 ]; then
  echo "usage: bash bench/quality/make_corpus.sh OUTDIR" >&2
  exit 2
fi
OUT="$1"

bash "$(dirname "${BASH_SOURCE[0]}")/../../scripts/install-deps.sh" ffmpeg espeak-ng alsa-utils \
  frozen-bubble-data wesnoth-1.16-music singularity-music sonic-pi-samples \
  asterisk-core-sounds-en-g722

mkdir -p "$OUT/stereo" "$OUT/mono"
FF=(ffmpeg -nostdin -v error -y)
OUT_FMT=(-ar 48000 -ac 2 -c:a pcm_s16le)
SOURCES="$OUT/SOURCES.md"
{
  echo "# Corpus sources"
  echo
  echo "Written by bench/quality/make_corpus.sh. Every item is 48 kHz s16; stereo/ and mono/."
  echo
  echo "| item | package (version) | file | licence |"
  echo "|---|---|---|---|"
} > "$SOURCES"

version() { dpkg-query -W -f='${Version}' "$1"; }
# source ITEM PACKAGE FILE LICENCE: one row of SOURCES.md.
source_row() { echo "| $1 | $2 ($(version "$2")) | $3 | $4 |" >> "$SOURCES"; }

# An excerpt of one recording: excerpt ITEM FILE START DURATION.
excerpt() {
  "${FF[@]}" -ss "$3" -t "$4" -i "$2" "${OUT_FMT[@]}" "$OUT/stereo/$1.wav"
}

WESNOTH=/usr/share/games/wesnoth/1.16/data/core/music
excerpt music_orchestral "$WESNOTH/battle-epic.ogg" 45 15
source_row music_orchestral wesnoth-1.16-music "$WESNOTH/battle-epic.ogg, 45-60 s" GPL-2+
FROZEN=/usr/share/games/frozen-bubble/snd
excerpt music_pop_drums "$FROZEN/frozen-mainzik-1p.ogg" 60 15
source_row music_pop_drums frozen-bubble-data "$FROZEN/frozen-mainzik-1p.ogg, 60-75 s" GPL-2
SINGULARITY=/usr/share/games/singularity/music
excerpt music_electronic "$SINGULARITY/Media Threat.ogg" 60 15
source_row music_electronic singularity-music "$SINGULARITY/Media Threat.ogg, 60-75 s" "CC BY-SA 3.0"

SONIC=/usr/share/sonic-pi/samples
"${FF[@]}" -i "$SONIC/guit_em9.flac" -i "$SONIC/guit_e_fifths.flac" -filter_complex \
  "[0:a]aresample=48000,aformat=channel_layouts=stereo[a];[1:a]aresample=48000,aformat=channel_layouts=stereo[b];[a][b]concat=n=2:v=0:a=1" \
  "${OUT_FMT[@]}" "$OUT/stereo/music_solo_guitar.wav"
source_row music_solo_guitar sonic-pi-samples "$SONIC/guit_em9.flac then guit_e_fifths.flac" \
  "CC0 (freesound, Sub-d)"
excerpt music_tabla "$SONIC/loop_tabla.flac" 0 20
source_row music_tabla sonic-pi-samples "$SONIC/loop_tabla.flac, whole" "CC0 (freesound, lezaarth)"
"${FF[@]}" -stream_loop 1 -i "$SONIC/loop_amen_full.flac" "${OUT_FMT[@]}" \
  "$OUT/stereo/music_drum_break.wav"
source_row music_drum_break sonic-pi-samples "$SONIC/loop_amen_full.flac, played twice" \
  "CC0 (freesound, gowers)"

# Real speech: the ALSA speaker-test voice, each recording followed by 0.3 s of silence.
ALSA=/usr/share/sounds/alsa
names=(Front_Center Front_Left Front_Right Rear_Center Rear_Left Rear_Right Side_Left Side_Right)
inputs=()
graph=""
for i in "${!names[@]}"; do
  inputs+=(-i "$ALSA/${names[$i]}.wav")
  graph+="[$i:a]aresample=48000,apad=pad_dur=0.3[s$i];"
done
for i in "${!names[@]}"; do graph+="[s$i]"; done
graph+="concat=n=${#names[@]}:v=0:a=1"
"${FF[@]}" "${inputs[@]}" -filter_complex "$graph" "${OUT_FMT[@]}" "$OUT/stereo/speech_alsa.wav"
source_row speech_alsa alsa-utils "$ALSA/{Front_Center,Front_Left,Front_Right,Rear_Center,Rear_Left,Rear_Right,Side_Left,Side_Right}.wav, 0.3 s apart" GPL-2
ASTERISK=/usr/share/asterisk/sounds/en_US_f_Allison
"${FF[@]}" -f g722 -i "$ASTERISK/demo-congrats.g722" -t 15 "${OUT_FMT[@]}" \
  "$OUT/stereo/speech_allison.wav"
source_row speech_allison asterisk-core-sounds-en-g722 "$ASTERISK/demo-congrats.g722, 0-15 s (16 kHz G.722)" \
  "CC BY-SA 3.0 (Allison Smith)"

# Synthetic speech.
TEXT="The weather station on the hill records the wind every ten minutes. When the storm \
came through on Tuesday night, the gusts reached ninety kilometres an hour, and three old \
oak trees fell across the road to the village. Crews worked until dawn to clear it."
espeak-ng -v en-us -s 160 -w "$OUT/espeak.wav" "$TEXT"
"${FF[@]}" -i "$OUT/espeak.wav" "${OUT_FMT[@]}" "$OUT/stereo/speech_espeak_us.wav"
espeak-ng -v en-gb+f3 -s 150 -w "$OUT/espeak.wav" "$TEXT"
"${FF[@]}" -i "$OUT/espeak.wav" "${OUT_FMT[@]}" "$OUT/stereo/speech_espeak_gb_f.wav"
rm -f "$OUT/espeak.wav"
source_row "speech_espeak_us, speech_espeak_gb_f" espeak-ng "synthesised: voices en-us and en-gb+f3" GPL-3+

# Synthetic hard cases. synth ITEM SECONDS EXPRESSIONS (one, or left|right).
synth() {
  "${FF[@]}" -f lavfi -i "aevalsrc=exprs='$3':s=48000:c=stereo:d=$2" "${OUT_FMT[@]}" \
    "$OUT/stereo/$1.wav"
}
for f in 100 1000 5000 10000 15000; do
  name=sine_$f
  [ $f -ge 1000 ] && name=sine_$((f / 1000))k
  synth "$name" 10 "0.891251*sin(2*PI*$f*t)"
done
# Log sweep 20 Hz -> 20 kHz in 10 s: phase = 2 pi f0 T / ln(k) (exp(t ln(k) / T) - 1), k = 1000.
synth sweep 10 "0.707946*sin(2*PI*28.9530*(exp(t*0.690776)-1))"
synth tone_over_chord 10 \
  "0.5*sin(2*PI*1000*t)+0.01*(sin(2*PI*261.63*t)+sin(2*PI*329.63*t)+sin(2*PI*392*t))"
synth clicks 10 "if(lt(mod(t,1),0.0005),0.891251*(1-cos(2*PI*mod(t,1)/0.0005))/2,0)"
# Bursts every 125 ms for 2 s, then 1 s of silence: a noise crack (2 ms decay) and a
# 2.6 kHz ring (8 ms decay), as castanets give.
castanet="st(0,mod(t,0.125));if(lt(mod(t,3),2),0.6*(2*random(1)-1)*exp(-ld(0)/0.002)+0.4*sin(2*PI*2600*ld(0))*exp(-ld(0)/0.008),0)"
synth castanets 12 "$castanet|$castanet"
synth white_noise 10 "2*random(0)-1|2*random(1)-1"
synth square 10 "0.5*if(lt(mod(t*440,1),0.5),1,-1)"
# Digits 1-9, 0, *, # at 200 ms each: row and column frequency, on for the first 100 ms.
dtmf="st(0,floor(mod(t,2.4)/0.2));st(1,if(lt(ld(0),9),floor(ld(0)/3),3));"
dtmf+="st(2,if(lt(ld(0),9),mod(ld(0),3),if(eq(ld(0),9),1,if(eq(ld(0),10),0,2))));"
dtmf+="st(3,if(eq(ld(1),0),697,if(eq(ld(1),1),770,if(eq(ld(1),2),852,941))));"
dtmf+="st(4,if(eq(ld(2),0),1209,if(eq(ld(2),1),1336,1477)));"
dtmf+="lt(mod(t,0.2),0.1)*0.35*(sin(2*PI*ld(3)*t)+sin(2*PI*ld(4)*t))"
synth dtmf 12 "$dtmf"
synth silence 10 "0"
steps="if(lt(mod(t,2),1),0,0.4*sin(2*PI*220*t)+0.25*sin(2*PI*330*t)+0.15*sin(2*PI*550*t)+0.12*(2*random(0)-1))"
synth silence_to_loud 10 "$steps"
source_row "sine_*, sweep, tone_over_chord, clicks, castanets, white_noise, square, dtmf, silence, silence_to_loud" \
  ffmpeg "synthesised with aevalsrc (expressions in make_corpus.sh)" "-"

for wav in "$OUT"/stereo/*.wav; do
  "${FF[@]}" -i "$wav" -af "pan=mono|c0=0.5*c0+0.5*c1" -ar 48000 -c:a pcm_s16le \
    "$OUT/mono/$(basename "$wav")"
done
echo "$(ls "$OUT/stereo" | wc -l) items in $OUT/stereo and $OUT/mono; sources in $SOURCES"
