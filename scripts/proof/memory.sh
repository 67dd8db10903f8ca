#!/usr/bin/env bash
# Prints what the service takes of memory, on this machine and on 32-bit ARM, and replays a plant's day.
source "$(dirname "$0")/../lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/proof/memory.sh [--items N] [--only PART]... [--recording FILE]

Installs what is missing, builds, and runs three parts, each against the figures of docs/limits.md:
  figures  what items, cached samples, reads and waiting samples take on this machine
  armhf    the same on 32-bit ARM, in the emulator
  day      24 hours of a plant with 500 items, replayed as fast as it goes: resident memory within
           10 % of the formula at each hour, nothing lost
Exit code 0 if all is within its limits; the last line counts the parts.
  --items N         archived items in one service (100000)
  --only PART       only this one
  --recording FILE  for the day; without it the generator of plant data makes one, where there is one
USAGE
}

items=100000
parts=()
recording=
while (($# > 0)); do
  case $1 in
    --items) items=${2:?--items needs a number} && shift ;;
    --only)
      case ${2:?--only needs a part} in
        figures | armhf | day) parts+=("$2") && shift ;;
        *) usage_error "no part $2" ;;
      esac
      ;;
    --recording) recording=$(cd "$OLDPWD" && realpath "${2:?--recording needs a file}") && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done
if ((${#parts[@]} == 0)); then parts=(figures armhf day); fi

figures() {
  configure release
  build release orva_memory_figures
  build/release/bin/orva_memory_figures --items "$items"
}

armhf() {
  scripts/setup.sh --armhf
  mkdir -p build
  cmake --preset armhf -B build/memory-armhf -DORVA_TESTS=OFF -DORVA_BENCH=ON \
    -DCMAKE_CXX_FLAGS="-O2 -g1" >build/configure-memory-armhf.log
  cmake --build build/memory-armhf --parallel "$(nproc)" --target orva_memory_figures
  qemu-arm-static -L "${ORVA_ARMHF_SYSROOT:-build/armhf-sysroot}" \
    build/memory-armhf/bin/orva_memory_figures --items "$items"
}

day() {
  local generator=../shared/data/make_plant.py
  configure release
  build release orva_host orva_database orva_sqlite
  if [[ -z $recording ]]; then
    if [[ ! -f $generator ]]; then
      say "the plant's day was not replayed: there is no $generator, and no --recording"
      exit $cannot
    fi
    recording=build/plant-day.csv
    if [[ ! -f $recording ]]; then
      python3 "$generator" --items 500 --hours 24 --out "$recording.new"
      mv "$recording.new" "$recording"
    fi
  fi
  python3 -B scripts/proof/plant_day.py --program build/release/bin/orva_host --recording "$recording"
}

cannot=77  # what a part exits with that cannot be tried here
scripts/setup.sh
passed=0
failed=0
skipped=0
for part in "${parts[@]}"; do
  say "$part"
  # A part that fails does not keep the others from running, and -e still holds in it.
  set +e
  (
    set -e
    "$part"
  )
  result=$?
  set -e
  if ((result == 0)); then
    passed=$((passed + 1))
  elif ((result == cannot)); then
    skipped=$((skipped + 1))
  else
    say "$part failed"
    failed=$((failed + 1))
  fi
done
echo "$passed passed, $failed failed$( ((skipped == 0)) || echo ", $skipped skipped")"
((failed == 0))
