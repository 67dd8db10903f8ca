#!/usr/bin/env bash
# Writers, readers, configuration events and failing archives at once, under the thread sanitizer.
source "$(dirname "$0")/../lib/common.sh"
source scripts/lib/proof.sh

usage() {
  cat <<USAGE
usage: scripts/proof/concurrency.sh [--seconds N] [--seed N]

Builds the model tests with the thread sanitizer, the check of the lock order and the counts of living
objects, and lets them run. Exit code 0 if nothing is wrong.
  --seconds N   how long (600)
  --seed N      another run of random choices (1)
USAGE
}

seconds=600
seed=1
while (($# > 0)); do
  case $1 in
    --seconds) seconds=${2:?--seconds needs a number} && shift ;;
    --seed) seed=${2:?--seed needs a number} && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

scripts/setup.sh
say "build tsan"
configure tsan
build tsan orva_model_tests

say "$seconds s, seed $seed"
export TSAN_OPTIONS=halt_on_error=1
export ORVA_CONCURRENCY_S=$seconds ORVA_CONCURRENCY_SEED=$seed
prove build/tsan/bin/orva_model_tests --gtest_filter='ConcurrencyTest.*'
