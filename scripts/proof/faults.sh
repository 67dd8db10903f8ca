#!/usr/bin/env bash
# Proves that faults of the disk lose nothing silently: the long form of orva_fault_tests.
source "$(dirname "$0")/../lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/proof/faults.sh [--operations N] [--step N] [--bin FOLDER]

Fails every operation of a script on the disk in turn, builds the files that a loss of power may leave,
changes every byte of a small store, and fills a disk of one megabyte (that needs root).
  --operations N  length of the script (default 500)
  --step N        bytes between those that are changed (default 1: each)
  --bin FOLDER    take orva_fault_tests from there (default: builds the dev preset)
The last line counts test cases. Exit code 0: all passed.
USAGE
}

operations=500
step=1
bin=
while (($# > 0)); do
  case $1 in
    --operations) operations=${2:?--operations needs a number} && shift ;;
    --step) step=${2:?--step needs a number} && shift ;;
    --bin) bin=$(cd "$OLDPWD" && realpath "${2:?--bin needs a folder}") && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

export ORVA_FAULT_OPERATIONS=$operations ORVA_DAMAGE_STEP=$step
source scripts/lib/proof_cases.sh
if [[ -z $bin ]]; then build_tests orva_fault_tests; fi
# In memory, where there is room: the disk's own speed is not what is proven.
if [[ -z ${TMPDIR:-} && -w /dev/shm ]]; then export TMPDIR=/dev/shm; fi
run_cases "$(nproc)" "$bin/orva_fault_tests"
