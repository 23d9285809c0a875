# Helpers shared by the benchmark scripts; sourced, not run.

# Exits with a message when one of the named commands is missing.
require_tools() {
  local tool
  for tool in "$@"; do
    command -v "$tool" >/dev/null || { echo "error: $tool is needed" >&2; exit 1; }
  done
}

# Builds tarnel-record in build dir $1 (configured for Release when it is new) and sets
# TARNEL to the binary.
build_tarnel_record() {
  local build_dir="$1"
  echo "== building tarnel-record in $build_dir"
  if [ ! -f "$build_dir/CMakeCache.txt" ]; then
    cmake -S "$ROOT" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release >/dev/null
  fi
  cmake --build "$build_dir" -j2 --target tarnel-record >/dev/null
  TARNEL="$build_dir/tools/tarnel-record"
}
