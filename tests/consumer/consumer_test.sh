#!/usr/bin/env bash
# Builds consumer_app.cc as an application outside the repository would, and runs it.
#
#   consumer_test.sh subdirectory  add_subdirectory(<repo>) from the consumer's project
#   consumer_test.sh package       cmake --install into a fresh prefix, then
#                                  find_package(TarnelRecording) with that prefix alone;
#                                  examples/record_file.cc records a short file through it
#   consumer_test.sh pkgconfig     cmake --install into a fresh prefix, then the compiler
#                                  with pkg-config's flags for tarnel-recording alone
#
# The installed modes first check the prefix's include dir: headers under sdk/ only, no
# FFmpeg or internal header among them, each compiling on its own against the prefix and
# reading no FFmpeg header. Every mode then checks, from the compiler's dependency list,
# that building the application read no FFmpeg header; the installed modes also check
# that it read the library's headers from the prefix and nowhere else.
#
# Environment (set by tests/CMakeLists.txt): CMAKE, CXX, TARNEL_SOURCE_DIR,
# TARNEL_BINARY_DIR, TARNEL_LIBDIR, TARNEL_INCLUDEDIR. Works in ./<mode>.
set -euo pipefail

mode=$1
work=$PWD/$mode
consumer_dir=$TARNEL_SOURCE_DIR/tests/consumer
rm -rf "$work"
mkdir -p "$work"
cd "$work"

fail() {
  echo "FAIL ($mode): $*" >&2
  exit 1
}

# FFmpeg's development headers, wherever the system keeps them.
ffmpeg_header_re='/lib(avformat|avcodec|avutil|avdevice|avfilter|swresample|swscale|postproc)/'
# The library's own headers, which an application never includes.
internal_header_re='ffmpeg/|task_queue|task_runner|thread\.h|timer\.h|mp4/|aac/|_impl\.h|segmentation_writer|container_muxer|output_file|stream_metadata|video_parser|aac_encoder|audio_resampler|ring_buffer|callback\.h|file(_path|_util)?\.h|simulated_clock'

# The files a make-style dependency list names, one a line.
deps_of() {
  [ -s "$1" ] || fail "no dependency list at $1"
  sed -e 's/\\$//' -e 's/^[^:]*: *//' "$1" | tr -s ' \t' '\n' | sed '/^$/d'
}

# The dependency list CMake's build of TARGET wrote for SOURCE (a file name).
cmake_depfile() {
  find "build/CMakeFiles/$1.dir" -name "$2.o.d" | head -n 1
}

# check_deps DEPFILE [PREFIX_INCLUDE]: no FFmpeg header; with a prefix, every header of
# the library (a path with /sdk/ in it) lies under the prefix.
check_deps() {
  local deps
  deps=$(deps_of "$1")
  if grep -E "$ffmpeg_header_re" <<<"$deps"; then
    fail "$1: the build read FFmpeg headers (above)"
  fi
  grep -q 'sdk/common/local_recording/local_recording\.h$' <<<"$deps" ||
    fail "$1: local_recording.h is not among the dependencies; wrong dependency list?"
  if [ $# -ge 2 ]; then
    local outside
    outside=$(grep -E '/sdk/.*\.h$' <<<"$deps" | while read -r f; do
      case "$(realpath "$f")" in "$2"/*) ;; *) echo "$f" ;; esac
    done)
    [ -z "$outside" ] || fail "$1: library headers read from outside the prefix: $outside"
  fi
}

# install_prefix: a fresh prefix holding the installed library; prints its include dir.
install_prefix() {
  "$CMAKE" --install "$TARNEL_BINARY_DIR" --prefix "$work/prefix" >/dev/null
  local include=$work/prefix/$TARNEL_INCLUDEDIR
  [ -d "$include/sdk" ] || fail "nothing installed under $include/sdk"

  local stray bad headers
  stray=$(cd "$include" && find . -type f ! -path './sdk/*.h')
  [ -z "$stray" ] || fail "files other than sdk headers under the include dir: $stray"
  headers=$(cd "$include" && find sdk -name '*.h' | sort)
  bad=$(grep -E "$internal_header_re" <<<"$headers" || true)
  [ -z "$bad" ] || fail "internal headers installed: $bad"

  # Each header on its own, against the prefix alone and with the consumer's warnings.
  local h
  for h in $headers; do
    echo "#include \"$h\"" >alone.cc
    "$CXX" -std=c++17 -Wall -Wextra -Werror -fsyntax-only -MD -MF alone.d -MT alone \
      -I"$include" alone.cc || fail "$h does not compile on its own"
    deps_of alone.d | grep -E "$ffmpeg_header_re" >&2 && fail "$h includes FFmpeg headers"
  done
  rm -f alone.cc alone.d
  (cd "$include" && pwd -P)
}

case "$mode" in
  subdirectory)
    "$CMAKE" -S "$consumer_dir" -B build -DTARNEL_CONSUME=subdirectory \
      -DTARNEL_SOURCE_DIR="$TARNEL_SOURCE_DIR" >/dev/null
    "$CMAKE" --build build -j2 >/dev/null
    check_deps "$(cmake_depfile consumer_app consumer_app.cc)"
    (cd build && ./consumer_app)
    ;;

  package)
    include=$(install_prefix)
    "$CMAKE" -S "$consumer_dir" -B build -DTARNEL_CONSUME=package \
      -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
      -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF \
      -DTARNEL_EXAMPLE_SOURCE="$TARNEL_SOURCE_DIR/examples/record_file.cc" >/dev/null
    grep -q "TarnelRecording_DIR:PATH=$work/prefix/" build/CMakeCache.txt ||
      fail "find_package found another TarnelRecording: $(grep TarnelRecording_DIR build/CMakeCache.txt)"
    "$CMAKE" --build build -j2 >/dev/null
    check_deps "$(cmake_depfile consumer_app consumer_app.cc)" "$include"
    check_deps "$(cmake_depfile record_file record_file.cc)" "$include"
    (cd build && ./consumer_app)
    ffmpeg -nostdin -v error -y -i "$TARNEL_SOURCE_DIR/samples/sample.mp4" -t 2 -c:v copy \
      -bsf:v h264_mp4toannexb in.h264
    build/record_file in.h264 example.mp4 >/dev/null 2>&1 || fail "record_file failed"
    errors=$(ffmpeg -nostdin -v error -i example.mp4 -f null - 2>&1)
    [ -z "$errors" ] || fail "example.mp4 does not decode cleanly: $errors"
    ;;

  pkgconfig)
    include=$(install_prefix)
    export PKG_CONFIG_PATH=$work/prefix/$TARNEL_LIBDIR/pkgconfig
    # shellcheck disable=SC2046  # pkg-config's flags are meant to be split.
    "$CXX" -std=c++17 -Wall -Wextra -Werror -MD -MF consumer_app.d \
      "$consumer_dir/consumer_app.cc" $(pkg-config --cflags --libs tarnel-recording) \
      -o consumer_app
    check_deps consumer_app.d "$include"
    ./consumer_app
    ;;

  *)
    fail "unknown mode; use subdirectory, package or pkgconfig"
    ;;
esac
