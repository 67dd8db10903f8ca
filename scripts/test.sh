#!/usr/bin/env bash
# Builds the tests of one preset and runs them.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/test.sh [--preset NAME] [--label REGEX] [--browser]

Installs what is missing, builds and runs the tests. Exit code 0 if all pass.
  --preset NAME   dev (default), asan, tsan, clang or armhf
  --label REGEX   only tests with a matching label: unit, model, e2e
  --browser       only the test of the trend page in a browser; installs the browser
USAGE
}

preset=dev
label=
browser=no
while (($# > 0)); do
  case $1 in
    --preset) preset=${2:?--preset needs a name} && shift ;;
    --label) label=${2:?--label needs a regular expression} && shift ;;
    --browser) browser=yes ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

if [[ $browser == yes ]]; then
  scripts/setup.sh --page
  exec scripts/lib/browser_test.sh "$preset"
fi

case $preset in
  armhf) scripts/setup.sh --armhf ;;
  clang) scripts/setup.sh --checks ;;
  asan) scripts/setup.sh --fuzz ;;
  dev | tsan) scripts/setup.sh ;;
  *) usage_error "no preset $preset has tests" ;;
esac

say "configure $preset"
configure "$preset"

say "build $preset"
targets=()
if [[ $label == unit ]]; then targets=(orva_unit_tests); fi
build "$preset" "${targets[@]}"

say "test $preset"
rm -rf "build/$preset/test-results"
selection=()
if [[ -n $label ]]; then selection=(--label-regex "$label"); fi
ctest --preset "$preset" "${selection[@]}"

if [[ $preset != dev || -n $label ]]; then exit; fi
if command -v node >/dev/null && command -v npm >/dev/null && command -v chromium >/dev/null; then
  scripts/lib/browser_test.sh dev
else
  say "the trend page was not tested in a browser: there is none; scripts/test.sh --browser installs one"
fi
