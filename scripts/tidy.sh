#!/usr/bin/env bash
# Runs clang-tidy on the sources, those changed last first, as long as its time lasts.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/tidy.sh [--seconds N] [FILE...]

Checks FILE..., or all sources of the clang preset, the most recently committed first.
  --seconds N  start no further file after N seconds (default 0: no limit)
USAGE
}

seconds=0
files=()
while (($# > 0)); do
  case $1 in
    --seconds) seconds=${2:?--seconds needs a number} && shift ;;
    -h | --help) usage && exit 0 ;;
    -*) usage_error "unknown argument $1" ;;
    *) files+=("$1") ;;
  esac
  shift
done

# The precompiled headers are part of the command lines, so they have to be there.
scripts/setup.sh --checks
configure clang
# shellcheck disable=SC2046 # one target a word
build clang $(ninja -C build/clang -t targets all | sed -n 's/\(.*\.pch\): .*/\1/p') >/dev/null

# A changed header stands for the source beside it.
recently_changed() {
  { git log --format= --name-only -- '*.cpp' '*.h' && git ls-files '*.cpp'; } |
    sed 's/\.h$/.cpp/' | awk '!seen[$0]++'
}
# Those of cli/ are compiled as one; clang-tidy takes the command of a neighbour for each.
compiled() {
  sed -n 's/^  "file": "\(.*\)",\?$/\1/p' build/clang/compile_commands.json
  git ls-files 'cli/*.cpp'
}

# What is delivered: in tests and benches its advice on speed costs more than it gives.
if ((${#files[@]} == 0)); then
  mapfile -t files < <(recently_changed | while read -r file; do
    if [[ -f $file ]]; then echo "$file"; fi
  done | grep -Fx -f <(compiled | sed "s|^$PWD/||") | grep -E '^(addins|cli|host)/' || true)
fi

check_one() {
  if ((deadline > 0 && $(date +%s) >= deadline)); then exit 0; fi
  echo "$1" >>"$checked"
  clang-tidy --quiet -p build/clang "$1" 2> >(grep -v 'warnings generated\|Suppressed\|Use -header' >&2)
}
export -f check_one
deadline=$((seconds > 0 ? $(date +%s) + seconds : 0))
checked=$(mktemp)
export deadline checked
trap 'rm -f "$checked"' EXIT

result=0
printf '%s\0' "${files[@]}" |
  xargs -0 --no-run-if-empty -n 1 -P "$(nproc)" bash -c 'check_one "$0"' || result=1
echo "tidy: $(wc -l <"$checked") of ${#files[@]} files checked"
exit $result
