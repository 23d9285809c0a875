#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, or the packages named
# on the command line (the benchmark scripts name theirs). As root it runs apt-get
# itself; otherwise it prints the command to run and fails.
set -euo pipefail

default_packages=(
  build-essential cmake pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev
  ffmpeg
  clang libclang-rt-14-dev  # scripts/run-fuzzers.sh: libFuzzer and the sanitizers
  # tests/e2e: real clients open the recordings (FAAD2, GStreamer's discoverer with the
  # MP4 demuxer, the H.264/H.265/AAC parsers and decoders, and headless Chromium).
  faad gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-base-apps
  gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-libav chromium python3
  libfaad-dev  # fuzz/aac_encoder_fuzzer.cc decodes with FAAD2's library too
)
if [ $# -gt 0 ]; then packages=("$@"); else packages=("${default_packages[@]}"); fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages. Run as root:" >&2
  echo "  apt-get update && apt-get install -y ${missing[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
