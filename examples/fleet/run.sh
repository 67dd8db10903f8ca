#!/usr/bin/env bash
# run.sh [FOLDER]: three controllers on this machine. Two stations archive what their pumps do, the
# center pulls it. Shows records of the stations as the center has them, interrupts a station, and
# shows that the center caught up. FOLDER is where the programs are (default: ../../build/release/bin).
# The data go into a temporary folder.
set -euo pipefail
example=$(cd "$(dirname "$0")" && pwd)
bin=$(cd "${1:-$example/../../build/release/bin}" && pwd)
folder=$(mktemp -d)
cp "$example"/*.json "$example"/*.lua "$folder"

declare -A pid port

# start NAME: starts that controller, on any free port for HTTP.
start() {
  : >"$folder/$1.out"  # nobody must read the port of its last run
  ${RUN_WITH:-} "$bin/orva_host" --config "$folder/$1.json" --port 0 \
    >"$folder/$1.out" 2>>"$folder/$1.log" &
  pid[$1]=$!
  for _ in {1..300}; do
    port[$1]=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$folder/$1.out")
    if [[ -n ${port[$1]} ]]; then return; fi
    kill -0 "${pid[$1]}" || break
    sleep 0.1
  done
  echo "$1 does not listen" >&2
  tail -n 20 "$folder/$1.log" >&2
  exit 1
}

stop() {
  local process=${pid[$1]}
  unset "pid[$1]"
  kill -TERM "$process"
  wait "$process"
}

finish() {
  local result=$? name
  trap - EXIT
  for name in "${!pid[@]}"; do stop "$name" || result=1; done
  rm -rf "$folder"
  exit "$result"
}
trap finish EXIT
trap 'exit 1' INT TERM

# history NAME PATH MOST: the newest records, as "time value quality".
history() {
  ${RUN_WITH:-} "$bin/orva_read_history" --port "${port[$1]}" --seconds 600 --most "$3" "$2" |
    awk 'NR > 1 {print $1, $3, $4}'
}

# Waits until the center has all that the station has now.
caught_up() {
  local station=$1 records
  records=$(history "station$station" Pump/Pressure 1000)
  for _ in {1..600}; do
    if [[ -n $records && $(history center "Station$station/Pressure" 1000) == *"$records"* ]]; then
      printf '%s' "$records"
      return
    fi
    sleep 0.1
  done
  echo "the center lacks records of station $station" >&2
  return 1
}

start center
start station1
start station2
sleep 2
for station in 1 2; do
  records=$(caught_up "$station")
  echo "station $station wrote, and the center has:"
  tail -n 3 <<<"$records" | sed 's/^/   /'
done

stop center
echo "the center is away for three seconds"
sleep 3
start center
records=$(caught_up 1)
echo "the center is back and has all $(wc -l <<<"$records") records of station 1"

stop station2
sleep 1
start station2
sleep 1
records=$(caught_up 2)
echo "station 2 was away, the center has all its $(wc -l <<<"$records") records too"
