#!/usr/bin/env bash
# Makes a year of samples, a second each, once; and times the trend page with it.
source "$(dirname "$0")/common.sh"
source scripts/lib/page_tools.sh

folder=build/year
build release orva_host orva_database orva_sqlite orva orva_web
[[ -e build/release/share/orva/web/index.html ]] || fail "the trend page was not built: npm could not fetch its library"
install_playwright build/release/browser
if [[ ! -e $folder/complete ]]; then
  say "a year of samples in $folder: 31 million rows, some minutes"
  rm -rf "$folder"
  mkdir -p "$folder"
  cp examples/year/year.json "$folder/"
  python3 examples/year/make_year.py 2>"$folder/spikes.txt" |
    build/release/bin/orva store import "$folder/store" --config "$folder/year.json"
  touch "$folder/complete"
fi
ORVA_BUILD=build/release ORVA_PLAYWRIGHT=build/release/browser \
  node bench/page/year.mjs "$folder" "$folder/spikes.txt"
