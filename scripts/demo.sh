#!/usr/bin/env bash
# Builds the host and the add-ins and runs the example plant.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/demo.sh [--seconds N] [--port P]

Installs what is missing, builds the release preset and runs the example plant, examples/plant.json,
in build/demo. Shows the archived variables and what their history holds after some seconds.
  --seconds N  stop after N seconds, at least 5 (default: run until Ctrl-C)
  --port P     port of the HTTP listener on 127.0.0.1 (default 8580)
USAGE
}

seconds=0
port=8580
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
((seconds == 0 || seconds >= 5)) || usage_error "--seconds needs at least 5, not $seconds"

scripts/setup.sh
say "build release"
configure release
page=()
if command -v node >/dev/null && command -v npm >/dev/null; then page=(orva_web); fi
build release "${page[@]}" orva_host orva orva_database orva_sqlite orva_events_log orva_read_history
exec scripts/lib/run_demo.sh "$seconds" "$port"
