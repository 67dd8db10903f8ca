#!/usr/bin/env bash
# Builds and runs the benchmarks.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/bench.sh [--filter REGEX | --fleet | --year] [--json FILE]

Installs what is missing, builds the release preset and runs the benchmarks, and then the fleet
simulation: one controller that pulls 1, 10, 50, 100 and 200 others.
  --filter REGEX  only benchmarks whose name matches, and no fleet
  --fleet         only the fleet simulation
  --year          only the trend page in a browser, with a year of 31 million samples; installs the
                  browser, and takes some minutes more when it makes the year
  --json FILE     also write the figures to FILE, those of the fleet to FILE.fleet
USAGE
}

arguments=()
fleet_arguments=(--controllers 1,10,50,100,200)
parts=(benchmarks fleet)
while (($# > 0)); do
  case $1 in
    --filter)
      arguments+=("--benchmark_filter=${2:?--filter needs a regular expression}") && shift
      parts=(benchmarks)
      ;;
    --fleet) parts=(fleet) ;;
    --year) parts=(year) ;;
    --json)
      json=$(cd "$OLDPWD" && realpath -m "${2:?--json needs a file}")
      arguments+=("--benchmark_out=$json" --benchmark_out_format=json) && shift
      fleet_arguments+=(--json "$json.fleet")
      ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

if [[ ${parts[0]} == year ]]; then
  scripts/setup.sh --page
  configure release
  exec scripts/lib/year_bench.sh
fi
scripts/setup.sh
say "build release"
configure release
build release orva_bench orva_fleet
for part in "${parts[@]}"; do
  say "$part"
  case $part in
    benchmarks) build/release/bin/orva_bench "${arguments[@]}" ;;
    fleet) build/release/bin/orva_fleet "${fleet_arguments[@]}" ;;
  esac
done
