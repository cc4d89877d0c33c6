# What the scripts share. Sourced, not run.

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

note() { printf '\n== %s\n' "$*"; }
fail() { printf 'error: %s\n' "$*" >&2; exit 1; }

# Two compilers at once fit into any machine that runs this; more cores, more compilers.
jobs() { nproc 2>/dev/null || echo 2; }

build() {  # build PRESET [TARGET...]
  local preset=$1
  shift
  cmake --preset "$preset" >"build-$preset.log" 2>&1 || { cat "build-$preset.log" >&2; rm -f "build-$preset.log"; fail "cmake --preset $preset"; }
  rm -f "build-$preset.log"
  cmake --build --preset "$preset" --parallel "$(jobs)" ${1+--target "$@"}
}
