#!/usr/bin/env bash
# Replays the fuzzers' corpus and lets each fuzzer look for more.
source "$(dirname "$0")/lib/common.sh"

targets=(configuration continuation csv_source datagrams history_query lua_block remote_answer
  request_endpoint segment)

usage() {
  cat <<USAGE
usage: scripts/fuzz.sh [--seconds N | --minutes N] [TARGET...]

Installs what is missing, builds the fuzzers, replays tests/fuzz/corpus and runs each of the targets, all
unless some are named, for N seconds or minutes each (default: 10 seconds).
What a run learns stays in build/fuzz/learned, where the next one goes on. An input that breaks a promise
stays in build/fuzz/findings, and how to run it again is told.
The targets: ${targets[*]}
USAGE
}

seconds=10
chosen=()
while (($# > 0)); do
  case $1 in
    --seconds | --minutes)
      [[ ${2:?$1 needs a number} =~ ^[1-9][0-9]{0,5}$ ]] || usage_error "$1 needs a number, not $2"
      seconds=$2
      if [[ $1 == --minutes ]]; then seconds=$(($2 * 60)); fi
      shift
      ;;
    -h | --help) usage && exit 0 ;;
    *)
      [[ " ${targets[*]} " == *" $1 "* ]] || usage_error "there is no target $1"
      chosen+=("$1")
      ;;
  esac
  shift
done
if ((${#chosen[@]} == 0)); then chosen=("${targets[@]}"); fi

scripts/setup.sh --fuzz
say "build the fuzzers"
configure asan
build asan orva_fuzz

program=build/asan/bin/orva_fuzz
findings=build/fuzz/findings
mkdir -p "$findings"
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1

# One input may take so long and so much memory, and have so many bytes.
limits=(-timeout=25 -rss_limit_mb=2048 -malloc_limit_mb=512 -max_len=4096)

# run TARGET LOG OPTION...: a fuzzer that hangs itself is ended too.
run() {
  local target=$1 log=$2
  shift 2
  timeout --kill-after=10 $((seconds + 300)) "$program" "$target" "${limits[@]}" \
    -artifact_prefix="$findings/$target-" "$@" >"$log" 2>&1 </dev/null
}

# A named figure of the fuzzer's summary.
figure() { sed -n "s/^stat::$1: *//p" "$2"; }

# fuzz TARGET: false after a finding, which it tells.
fuzz() {
  local target=$1 log=build/fuzz/$1.log
  local corpus=tests/fuzz/corpus/$1 learned=build/fuzz/learned/$1 words=tests/fuzz/dictionaries/$1.dict
  # The replay looks for leaks after each input, which is slow; the rest does once, at its end.
  local options=(-max_total_time="$seconds" -print_final_stats=1 -detect_leaks=0)
  mkdir -p "$learned"
  if [[ -e $words ]]; then options+=(-dict="$words"); fi
  if ! run "$target" "$log" -runs=0 "$corpus"; then
    tell "$target" "$log" "an input of $corpus"
    return 1
  fi
  if ! run "$target" "$log" "${options[@]}" "$learned" "$corpus"; then
    tell "$target" "$log" "a new input"
    return 1
  fi
  printf '%s: %d inputs kept, %d tried in %d s, %d a second\n' "$target" "$(find "$corpus" -type f | wc -l)" \
    "$(figure number_of_executed_units "$log")" "$seconds" \
    "$(figure average_exec_per_sec "$log")"
}

# tell TARGET LOG WHAT
tell() {
  local file
  file=$(sed -n 's/.*Test unit written to //p' "$2" | tail -n 1)
  echo "$1: FAILED on $3; the end of $2:"
  grep -v '^stat::' "$2" | tail -n 40
  if [[ -n $file ]]; then
    echo "$1: again with: $program $1 $file"
    echo "$1: smaller with: $program $1 -minimize_crash=1 -runs=100000 $file"
  fi
}

passed=0
failed=0
say "${#chosen[@]} targets, $seconds s each"
for target in "${chosen[@]}"; do
  if fuzz "$target"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
  fi
done
echo "$passed passed, $failed failed"
((failed == 0))
