#!/usr/bin/env bash
# The full form of everything that proves the service: some hours of work for two processors.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/proof.sh [--part NAME]... [--list]

Runs each part to its end, also after one failed, and says how long it took. What a part printed
stands in build/proof/NAME.log. The last line counts parts, and the cases of them that were skipped; exit
code 0 if no part failed.
  --part NAME  only this one; may be given again
  --list       the parts and their commands, runs nothing
USAGE
}

# name, what it proves, command
parts=(
  "fuzzing|nothing that comes from outside breaks the service|scripts/fuzz.sh --minutes 10"
  "faults|failing disks, memory and damaged stores are told, survived and recovered from|scripts/proof/faults.sh"
  "kills|what was committed survives kill -9|scripts/proof/kills.sh"
  "concurrency|no data race, no deadlock, nothing left over|scripts/proof/concurrency.sh"
  "clock|no clock stops the service or loses samples|scripts/proof/clock.sh"
  "allocations|the service survives each failing allocation|scripts/proof/allocations.sh"
  "memory|memory is what docs/limits.md says|scripts/proof/memory.sh"
  "planted|the tests find mistakes|scripts/planted.sh"
  "coverage|the tests reach the code|scripts/coverage.sh"
)

chosen=()
list=no
while (($# > 0)); do
  case $1 in
    --part) chosen+=("${2:?--part needs a name}") && shift ;;
    --list) list=yes ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

names=()
for part in "${parts[@]}"; do names+=("${part%%|*}"); done
for name in "${chosen[@]}"; do
  [[ " ${names[*]} " == *" $name "* ]] || usage_error "no part $name; there are: ${names[*]}"
done

if [[ $list == yes ]]; then
  for part in "${parts[@]}"; do
    IFS='|' read -r name proves command <<<"$part"
    printf '%-12s %-32s %s\n' "$name" "$command" "$proves"
  done
  exit
fi

mkdir -p build/proof
passed=0
failed=0
skipped=0
for part in "${parts[@]}"; do
  IFS='|' read -r name proves command <<<"$part"
  if ((${#chosen[@]} > 0)) && [[ " ${chosen[*]} " != *" $name "* ]]; then continue; fi
  start=$SECONDS
  status=0
  # shellcheck disable=SC2086 # words of a command of this file
  $command >"build/proof/$name.log" 2>&1 </dev/null || status=$?
  if ((status == 0)); then
    passed=$((passed + 1))
    verdict=fine
  else
    failed=$((failed + 1))
    verdict="FAILED with exit code $status, see build/proof/$name.log"
  fi
  last=$(tail -n 1 "build/proof/$name.log")
  if [[ $last =~ ,\ ([0-9]+)\ skipped$ ]]; then skipped=$((skipped + BASH_REMATCH[1])); fi
  printf '%-12s %6d s  %s: %s (%s)\n' "$name" $((SECONDS - start)) "$proves" "$verdict" "$last"
done
echo "$passed passed, $failed failed$( ((skipped == 0)) || echo ", $skipped skipped")"
((failed == 0))
