#!/usr/bin/env bash
# Builds and runs the benchmarks.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/bench.sh [--filter REGEX] [--json FILE]

Installs what is missing, builds the release preset and runs the benchmarks.
  --filter REGEX  only benchmarks whose name matches
  --json FILE     also write the figures to FILE
USAGE
}

arguments=()
while (($# > 0)); do
  case $1 in
    --filter) arguments+=("--benchmark_filter=${2:?--filter needs a regular expression}") && shift ;;
    --json)
      json=$(cd "$OLDPWD" && realpath -m "${2:?--json needs a file}")
      arguments+=("--benchmark_out=$json" --benchmark_out_format=json) && shift
      ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

scripts/setup.sh
say "build release"
configure release
build release orva_bench
say "benchmarks"
exec build/release/bin/orva_bench "${arguments[@]}"
