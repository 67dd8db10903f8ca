# Shared by the proofs that are test binaries; sourced after common.sh.

# build_tests TARGET: of the dev preset; where it is then stands in `bin`.
build_tests() {
  scripts/setup.sh
  say "build dev"
  configure dev
  build dev "$1"
  bin=build/dev/bin
}

# run_cases PROCESSES BINARY [ARGUMENT...]: runs its cases in so many processes, prints what they say
# and, last, how many passed, failed and were skipped. Exits with 0 when none failed.
run_cases() {
  local processes=$1 folder index passed failed skipped ended=0 bad=0 pids=()
  shift
  folder=$(mktemp -d)
  for ((index = 0; index < processes; ++index)); do
    GTEST_TOTAL_SHARDS=$processes GTEST_SHARD_INDEX=$index "$@" --gtest_color=no >"$folder/$index" 2>&1 &
    pids+=($!)
  done
  for index in "${!pids[@]}"; do
    local status=0
    wait "${pids[index]}" || status=$?
    grep -v '^\[ *RUN\|^\[---\|^Note: ' "$folder/$index" || true
    if ((status != 0)); then bad=1; fi
    # A process that died reported nothing of what it was at.
    if ((status > 1)); then ended=$((ended + 1)); fi
  done
  passed=$(cat "$folder"/* | grep -c '^\[       OK \]' || true)
  failed=$(cat "$folder"/* | grep -c '^\[  FAILED  \].*ms)$' || true)
  skipped=$(cat "$folder"/* | grep -c '^\[  SKIPPED \].*ms)$' || true)
  rm -rf "$folder"
  failed=$((failed + ended))
  if ((failed == 0 && (bad || passed == 0))); then failed=1; fi
  echo "$passed passed, $failed failed$( ((skipped == 0)) || echo ", $skipped skipped")"
  ((failed == 0))
  exit
}
