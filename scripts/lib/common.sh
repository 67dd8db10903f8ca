# Shared by the scripts; sourced, not run. Stands in the project's root folder afterwards.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

say() { printf '== %s\n' "$*"; }

fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

usage_error() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  usage >&2
  exit 2
}

# configure PRESET [OPTION...]: quiet unless it fails.
configure() {
  local log=build/configure-$1.log
  mkdir -p build
  if ! cmake --preset "$@" >"$log" 2>&1; then
    cat "$log" >&2
    fail "configuring $1 failed"
  fi
}

# build PRESET [TARGET...]
build() {
  local preset=$1 targets=()
  shift
  if (($# > 0)); then targets=(--target "$@"); fi
  cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}"
}
