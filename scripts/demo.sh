#!/usr/bin/env bash
# Builds the host and the add-ins and runs the example plant.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/demo.sh [--seconds N] [--port P]

Installs what is missing, builds the release preset and runs the example plant.
  --seconds N  stop after N seconds (default: run until interrupted)
  --port P     port of the HTTP listener on 127.0.0.1 (default 8080)
USAGE
}

seconds=0
port=8080
while (($# > 0)); do
  case $1 in
    --seconds) seconds=${2:?--seconds needs a number} && shift ;;
    --port) port=${2:?--port needs a number} && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done
[[ $seconds =~ ^[0-9]+$ ]] || usage_error "--seconds needs a number, not $seconds"
[[ $port =~ ^[0-9]+$ ]] || usage_error "--port needs a number, not $port"

scripts/setup.sh
say "build release"
configure release
build release orva_host orva_database orva_sqlite
exec scripts/lib/run_demo.sh "$seconds" "$port"
