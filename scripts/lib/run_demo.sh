#!/usr/bin/env bash
# run_demo.sh SECONDS PORT: runs the example plant with the built host and shows its history;
# 0 seconds is until interrupted.
source "$(dirname "$0")/common.sh"
seconds=$1
port=$2

patience=${ORVA_DEMO_PATIENCE:-60} # seconds until the host listens; a small board takes some
bin=build/release/bin
folder=build/demo
host=
sleeper=

# Whatever ends this script ends the host. Gives the host's exit code.
stop_host() {
  local result=0
  if [[ -n $host ]]; then
    kill -TERM "$host" 2>/dev/null || true
    wait "$host" || result=$?
    host=
  fi
  return "$result"
}
on_exit() {
  local result=$?
  if [[ -n $sleeper ]]; then kill "$sleeper" 2>/dev/null || true; fi
  stop_host || result=$?
  exit "$result"
}

finish() {
  trap '' INT TERM
  local result=0
  stop_host || result=$?
  if ((result != 0)); then
    say "the host failed with exit code $result; the end of its log, $folder/host.log:"
    tail -n 20 "$folder/host.log"
    exit "$result"
  fi
  say "stopped; the history stays in $folder/data and is there again at the next start"
  exit 0
}

# A wait that a signal ends.
pause() {
  sleep "$1" &
  sleeper=$!
  wait "$sleeper" || true
  sleeper=
}

# Runs a copy of the example, so that its data stay out of examples/.
start_host() {
  mkdir -p "$folder"
  cp -r examples/plant.json examples/programs "$folder/"
  : >"$folder/host.out"
  "$bin/orva_host" --config "$folder/plant.json" --port "$port" \
    >"$folder/host.out" 2>"$folder/host.log" &
  host=$!
  local deadline=$((SECONDS + patience)) result=0
  while ((SECONDS < deadline)) && kill -0 "$host" 2>/dev/null; do
    if grep -q '^listening on' "$folder/host.out"; then return; fi
    pause 0.1
  done
  stop_host || result=$?
  say "the host did not listen within $patience s, its exit code is $result; the end of its log, $folder/host.log:"
  tail -n 20 "$folder/host.log"
  exit 1
}

trap on_exit EXIT
trap finish INT TERM
begin=$SECONDS
start_host
say "the example plant is running, $(cat "$folder/host.out")"
say "it archives these variables of this machine and of a simulated tank:"
"$bin/orva_read_history" --port "$port" --list | sed 's/^/   /'

collect=$((seconds == 0 || seconds > 12 ? 10 : seconds - 3))
say "collecting for $collect seconds"
pause "$collect"
say "the newest history of some of them, as $bin/orva_read_history reads it over HTTP:"
"$bin/orva_read_history" --port "$port" --seconds "$((collect + 1))" --most 5 \
  Plant/Tank/Level Plant/Tank/Pump System/Cpu/Load System/Memory/UsedPercent System/Mode

if ((seconds > 0)); then
  left=$((begin + seconds - SECONDS))
  if ((left > 0)); then pause "$left"; fi
  finish
fi
cat <<NEXT
== it goes on until Ctrl-C; meanwhile, in another terminal:
   $bin/orva --host http://127.0.0.1:$port read System/Cpu/Load --from -5m
   curl http://127.0.0.1:$port/metrics
   and in a browser: http://127.0.0.1:$port/?item=Plant/Tank/Level&item=Plant/Tank/Pump&last=10m
   tail -f $folder/host.log
NEXT
while kill -0 "$host" 2>/dev/null; do pause 1; done
finish
