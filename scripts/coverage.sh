#!/usr/bin/env bash
# Shows which lines of the service and of its archive the tests reach.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/coverage.sh [--report] [--minimum PERCENT] [--build FOLDER]

Installs what is missing, builds the coverage preset, runs the unit, model and end-to-end tests, and
prints the lines reached, file by file. Exit code 0 if the tests pass and orva_database, orva_sqlite
and sqlite_base each have enough of their lines reached. build/coverage/html/index.html shows the rest.
  --report           only report on the tests that ran before
  --minimum PERCENT  of the lines of each (90)
  --build FOLDER     a build folder of the coverage preset (build/coverage)
USAGE
}

minimum=90
folder=build/coverage
report_only=no
while (($# > 0)); do
  case $1 in
    --report) report_only=yes ;;
    --minimum) minimum=${2:?--minimum needs a number} && shift ;;
    --build) folder=$(cd "$OLDPWD" && realpath "${2:?--build needs a folder}") && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

tests=0
if [[ $report_only == no ]]; then
  scripts/setup.sh --checks
  say "build coverage"
  mkdir -p build
  cmake --preset coverage -B "$folder" >build/configure-coverage.log
  cmake --build "$folder" --parallel "$(nproc)"
  find "$folder" -name '*.gcda' -delete
  say "test coverage"
  ORVA_MODEL_OPS=${ORVA_MODEL_OPS:-200000} ctest --test-dir "$folder" --label-regex 'unit|model|e2e' \
    --parallel 2 --output-on-failure || tests=$?
fi

# report NAME FOLDER...: a table of the files, and whether enough of them is reached.
report() {
  local name=$1 filters=() part
  shift
  for part in "$@"; do filters+=(--filter "$part/"); done
  say "$name"
  gcovr --root . "${filters[@]}" --exclude-throw-branches --fail-under-line "$minimum" \
    --print-summary "$folder/addins"
}

mkdir -p "$folder/html"
gcovr --root . --filter addins/ --html-details "$folder/html/index.html" "$folder/addins" >/dev/null
few=()
for part in orva_database orva_sqlite sqlite_base; do
  report "$part" "addins/$part" || few+=("$part")
done
if ((tests != 0)); then fail "tests failed"; fi
if ((${#few[@]} > 0)); then fail "less than $minimum % of the lines reached: ${few[*]}"; fi
say "at least $minimum % of the lines of each reached"
