# For the scripts that prove something with a test binary; sourced after common.sh.

# prove COMMAND...: runs a test binary and ends the script with its counts. One that dies before it
# counts has failed once. What was proved before it counts too, and what could not be tried here.
proved_before=0
failed_before=0
skipped_before=0
prove() {
  local log status=0 passed failed skipped
  log=$(mktemp)
  "$@" 2>&1 | tee "$log" || status=$?
  passed=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\{0,1\}\..*/\1/p' "$log")
  failed=$(sed -n 's/^\[  FAILED  \] \([0-9]*\) tests\{0,1\}, listed.*/\1/p' "$log")
  skipped=$(sed -n 's/^\[  SKIPPED \] \([0-9]*\) tests\{0,1\}, listed.*/\1/p' "$log")
  rm -f "$log"
  passed=${passed:-0}
  failed=${failed:-0}
  if ((failed == 0 && (status != 0 || passed == 0))); then failed=1; fi
  passed=$((passed + proved_before))
  failed=$((failed + failed_before))
  skipped=$((${skipped:-0} + skipped_before))
  echo "$passed passed, $failed failed$( ((skipped == 0)) || echo ", $skipped skipped")"
  exit $((failed > 0))
}
