#!/usr/bin/env bash
# Each memory allocation of a write, a read and a restart fails once.
source "$(dirname "$0")/../lib/common.sh"
source scripts/lib/proof.sh

usage() {
  cat <<USAGE
usage: scripts/proof/allocations.sh [--step N]

  --step N   only every N-th allocation is made to fail (1)
USAGE
}

step=1
while (($# > 0)); do
  case $1 in
    --step) step=${2:?--step needs a number} && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

scripts/setup.sh
say "build dev"
configure dev
build dev orva_unit_tests

say "every allocation, step $step"
export ORVA_ALLOCATION_STEP=$step
prove build/dev/bin/orva_unit_tests --gtest_filter='AllocationsTest.*:*OutOfMemory*'
