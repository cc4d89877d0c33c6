# What the scripts share. Sourced, not run.

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

note() { printf '\n== %s\n' "$*"; }
fail() { printf 'error: %s\n' "$*" >&2; exit 1; }

# Two compilers at once fit into any machine that runs this; more cores, more compilers.
jobs() { nproc 2>/dev/null || echo 2; }

# Builds quietly: what the tools say is shown only when they fail.
build() {  # build PRESET [TARGET...]
  local preset=$1 log
  shift
  log=$(mktemp)
  { cmake --preset "$preset" && cmake --build --preset "$preset" --parallel "$(jobs)" ${1+--target "$@"}; } >"$log" 2>&1 ||
    { cat "$log" >&2; rm -f "$log"; fail "building the preset $preset"; }
  tail -n 1 "$log"
  rm -f "$log"
}
