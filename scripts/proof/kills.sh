#!/usr/bin/env bash
# Proves that kill -9 at any moment loses nothing that was committed: the kill test, many times.
source "$(dirname "$0")/../lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/proof/kills.sh [--rounds N] [--bin FOLDER]

Kills a host that writes, joins, cleans up or starts, and compares what it stored with a ledger.
  --rounds N    how often (default 500; some 15 minutes)
  --bin FOLDER  take orva_e2e_tests from there (default: builds the dev preset)
The last line counts test cases. Exit code 0: all passed.
USAGE
}

rounds=500
bin=
while (($# > 0)); do
  case $1 in
    --rounds) rounds=${2:?--rounds needs a number} && shift ;;
    --bin) bin=$(cd "$OLDPWD" && realpath "${2:?--bin needs a folder}") && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

export ORVA_KILL_ROUNDS=$rounds
source scripts/lib/proof_cases.sh
if [[ -z $bin ]]; then build_tests orva_e2e_tests; fi
run_cases 1 "$bin/orva_e2e_tests" --gtest_filter='KillTest.*'
