#!/usr/bin/env bash
# Plants known mistakes into a copy of the sources, one at a time, and shows which test finds each.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/planted.sh [--only NN,...] [--turn] [--named | --search] [--jobs N]

Applies each patch of tests/planted to a copy of the last commit, builds it and runs tests until one
fails: the tests that the patch names, then unit, model and e2e. The same tests have to pass without
the patch. Exit code 0 if every mistake is found.
  --only NN,...  only the patches of these numbers
  --turn         four of them, others every day, with --named
  --named        run no tests but those that a patch names
  --search       run all tests also where a patch names some
  --jobs N       build with N processes (default: the number of processors)
USAGE
}

only=
turn=no
named=no
search=no
jobs=$(nproc)
while (($# > 0)); do
  case $1 in
    --only) only=${2:?--only needs numbers} && shift ;;
    --turn) turn=yes named=yes ;;
    --named) named=yes ;;
    --search) search=yes ;;
    --jobs) jobs=${2:?--jobs needs a number} && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

scripts/setup.sh --checks
patches_folder=$PWD/tests/planted
work=$PWD/build/planted
copy=$work/source
git_folder=$(git rev-parse --absolute-git-dir)
export ASAN_OPTIONS=detect_leaks=1 TSAN_OPTIONS=halt_on_error=1

# ---- the patches

name_of() { basename "$1" .patch; }
# header PATCH KEY: what stands behind "KEY: " in the lines above the diff.
header() { sed -n "/^diff /q; s/^$2: //p" "$1"; }
# Where a patch is tried: in the dev preset, under tsan, or by clang's analysis alone.
check_of() { header "$1" Check | grep . || echo dev; }

all=("$patches_folder"/*.patch)
select_patches() {
  local day=$((10#$(date +%j))) number
  if [[ $turn == yes ]]; then
    for number in 0 1 2 3; do echo "${all[(day * 4 + number) % ${#all[@]}]}"; done
  elif [[ -n $only ]]; then
    for number in ${only//,/ }; do printf '%s\n' "${all[@]}" | grep "/$(printf %02d "$((10#$number))")-"; done
  else
    printf '%s\n' "${all[@]}"
  fi
}
# Each number is looked up before: what fails inside < <( ) is not seen.
for number in ${only//,/ }; do
  [[ $number =~ ^[0-9]+$ ]] || usage_error "--only needs numbers, not $number"
  printf '%s\n' "${all[@]}" | grep "/$(printf %02d "$((10#$number))")-" >/dev/null ||
    fail "there is no patch $number"
done
mapfile -t patches < <(select_patches)
((${#patches[@]} > 0)) || fail "there is no such patch"

# ---- the copy

in_copy() { git -C "$copy" --git-dir="$git_folder" --work-tree="$copy" "$@"; }

# Only what differs is written, so that a second run builds little.
make_copy() {
  mkdir -p "$copy"
  GIT_INDEX_FILE=$work/index in_copy read-tree -u --reset 'HEAD^{tree}'
}

# ccache takes a precompiled header that is there for an input of the one that replaces it, and then
# finds nothing of what other trees have compiled.
drop_old_headers() {
  local header
  mkdir -p "$copy/build"
  find "$copy/build" -name '*.gch' | while read -r header; do
    if [[ -n $(find "$copy/include" -newer "$header" -print -quit) ]]; then rm "$header"; fi
  done
}

# unit_sources PATCH...: a regular expression for the files whose tests the patches name, and for what
# several of them share; everything if one names none, or nothing of the unit tests.
unit_sources() {
  local patch suites files=()
  for patch in "$@"; do
    suites=$(header "$patch" Tests | sed -n 's/^unit //p' | tr ':' '\n' | sed 's/\..*//; s/.*[/*]//' | paste -sd '|')
    [[ -n $suites ]] || return 0
    mapfile -t -O "${#files[@]}" files < <(cd "$copy" &&
      grep -rlE "^(TEST|TEST_F|TEST_P|TYPED_TEST)\(($suites)," tests/unit)
  done
  mapfile -t -O "${#files[@]}" files < <(cd "$copy" &&
    find tests/unit tests/fault/fault_vfs.cpp -name '*.cpp' ! -name '*_test.cpp')
  printf '%s\n' "${files[@]}" | sort -u | paste -sd '|'
}

# Of all patches, also those of other days: each applies, and the tests that it names are there.
check_patches() {
  local patch test bad=0
  for patch in "${all[@]}"; do
    in_copy apply --check "$patch" || bad=$((bad + 1))
    while read -r test; do
      if ! grep -rqw -- "$test" "$copy/tests"; then
        printf '%s: there is no test %s\n' "$(name_of "$patch")" "$test" >&2
        bad=$((bad + 1))
      fi
    done < <(header "$patch" Tests | sed 's/^[a-z0-9]* //' | tr ':' '\n' | sed 's/^.*\.//; s/[/*].*//')
  done
  ((bad == 0)) || fail "patches have to follow the sources"
}

# configured SOURCES
configured() {
  cmake -S "$copy" -B "$copy/build/dev" --preset dev "-DORVA_UNIT_ONLY=$1" >"$work/configure.log" 2>&1 ||
    { cat "$work/configure.log" >&2 && fail "configuring failed"; }
}

# program CHECK LABEL
program() {
  if [[ $1 == tsan ]]; then echo "$work/tsan_tests"; else echo "$copy/build/dev/bin/orva_$2_tests"; fi
}

# built CHECK LABEL PATCH: for the thread sanitizer only the few files that the patch names, as a
# program of their own: the preset would take many minutes.
built() {
  if [[ $1 == tsan ]]; then
    # shellcheck disable=SC2046
    (cd "$copy" && g++ -std=c++17 -O1 -g1 -fsanitize=thread -ffunction-sections -Wl,--gc-sections \
      -DRAPIDJSON_HAS_STDSTRING=1 -Iinclude -Iaddins -Ihost -Itests $(header "$3" Sources) \
      -o "$(program "$1" "$2")" -lgtest -lgtest_main -pthread) >"$work/build.log" 2>&1
  else
    ninja -C "$copy/build/dev" -j "$jobs" "orva_$2_tests" >"$work/build.log" 2>&1
  fi
}

# ---- running tests

caught_by= # the test that failed
# passes CHECK LABEL FILTER SECONDS: whether the tests pass; a test that does not end does not.
passes() {
  local log=$work/$1-$2.log status=0
  mkdir -p "$work/run"
  (cd "$work/run" && timeout --kill-after=10 "$4" "$(program "$1" "$2")" \
    "--gtest_filter=$3" --gtest_fail_fast >"$log" 2>&1 </dev/null) || status=$?
  ((status != 0)) || return 0
  caught_by=$(sed -n 's/^\[  FAILED  \] \([^ ,]*\).*/\1/p' "$log" | head -n 1)
  if [[ -z $caught_by ]]; then
    caught_by=$(sed -n 's/^\[ RUN      \] //p' "$log" | tail -n 1)
    if ((status == 124 || status == 137)); then
      caught_by+=", which does not end"
    elif grep -q 'WARNING: ThreadSanitizer' "$log"; then
      caught_by+=" under the thread sanitizer"
    else
      caught_by+=", which dies"
    fi
  fi
  return 1
}

# analysed PATCH: whether clang's thread safety analysis accepts the sources that the patch changes.
analysed() {
  local file command files
  mapfile -t files < <(sed -n 's/^+++ b\/\(.*\.cpp\)$/\1/p' "$1")
  for file in "${files[@]}"; do
    command=$(awk -v file="/$file\"" '/^  "command"/ {c = $0} /^  "file"/ && index($0, file) {print c; exit}' \
      "$copy/build/dev/compile_commands.json" |
      sed 's/^  "command": "//; s/",$//; s/\\\(["\\]\)/\1/g; s/^.*\/[cg]++ //; s/ -include [^ ]*//; s/ -o .*//')
    [[ -n $command ]] || fail "no compile command for $file"
    (cd "$copy/build/dev" && eval "clang++ -fsyntax-only -Wthread-safety -Wno-unknown-warning-option \
      $command $copy/$file") >"$work/clang.log" 2>&1 || return 1
  done
}

# ---- without a mistake

declare -A limit # seconds for the tests that a patch names: many times what they take without it

# Shows that the tests named by the patches pass.
show_clean() {
  local patch check label filter start
  for patch in "${patches[@]}"; do
    check=$(check_of "$patch")
    if [[ $check == clang ]]; then
      analysed "$patch" || { cat "$work/clang.log" && fail "clang refuses the sources as they are"; }
      continue
    fi
    read -r label filter < <(header "$patch" Tests) || continue
    built "$check" "$label" "$patch" || { cat "$work/build.log" && fail "the sources do not build as they are"; }
    start=$SECONDS
    passes "$check" "$label" "$filter" 600 || fail "without a mistake fails: $caught_by"
    grep -q '^\[  PASSED  \] [1-9]' "$work/$check-$label.log" || fail "$(name_of "$patch") names no test: $filter"
    limit[$patch]=$((30 + 10 * (SECONDS - start)))
  done
}

# ---- with one

# try CHECK LABEL FILTER SECONDS PATCH: 0 when a test fails, 1 when none does.
try() {
  if ! built "$1" "$2" "$5"; then
    tail -n 30 "$work/build.log"
    broken=yes
    return 0
  fi
  ! passes "$1" "$2" "$3" "$4"
}

# find PATCH: 0 when something finds the mistake that is in the copy; where.
find_mistake() {
  local patch=$1 check label filter
  check=$(check_of "$patch")
  if [[ $check == clang ]]; then
    where=clang caught_by="clang's thread safety analysis"
    ! analysed "$patch"
    return
  fi
  where=$check
  if [[ $search == no ]] && read -r label filter < <(header "$patch" Tests); then
    if [[ $check == dev ]]; then where=$label; fi
    try "$check" "$label" "$filter" "${limit[$patch]}" "$patch" && return 0
  fi
  [[ $check == dev && $named == no ]] || return 1
  configured ''
  for label in unit model e2e; do
    where=$label
    try dev "$label" '*' 900 "$patch" && searched=yes && return 0
  done
  return 1
}

passed=0
failed=0
one() {
  local patch=$1 start=$SECONDS found=no name
  name=$(name_of "$patch")
  name="${name%%-*} ${name#*-}"
  broken=no searched=no where=
  if ! in_copy apply "$patch"; then
    printf '%s: CANNOT BE PLANTED: the patch does not apply\n' "$name"
    failed=$((failed + 1))
    return
  fi
  if find_mistake "$patch"; then found=yes; fi
  in_copy apply --reverse "$patch"
  # A test that was not run before has to pass without the mistake.
  if [[ $found$broken$searched == yesnoyes ]]; then
    local test=${caught_by%%[, ]*} by=$caught_by
    if ! built dev "$where" "$patch" || ! passes dev "$where" "$test" 600; then
      printf '%s fails without a mistake\n' "$test"
      found=no
    fi
    caught_by=$by
  fi
  if [[ $broken == yes ]]; then
    printf '%s: CANNOT BE PLANTED: it does not compile\n' "$name"
  elif [[ $found == yes ]]; then
    printf '%s: caught by %s (%s, %d s)\n' "$name" "$caught_by" "$where" $((SECONDS - start))
    passed=$((passed + 1))
    return
  else
    printf '%s: NOT CAUGHT (%d s)\n' "$name" $((SECONDS - start))
  fi
  failed=$((failed + 1))
}

say "a copy of $(git rev-parse --short HEAD)"
make_copy
check_patches
drop_old_headers
for_dev=()
for patch in "${patches[@]}"; do
  case $(check_of "$patch") in
    dev) for_dev+=("$patch") ;;
    tsan | clang) ;; # clang takes its command lines from the dev preset
    *) fail "$(name_of "$patch") has an unknown check" ;;
  esac
done
sources=
if [[ $search == no ]]; then sources=$(unit_sources "${for_dev[@]}"); fi
configured "$sources"

say "without a mistake"
show_clean
say "${#patches[@]} mistakes"
for patch in "${patches[@]}"; do one "$patch"; done
echo "$passed passed, $failed failed"
((failed == 0))
