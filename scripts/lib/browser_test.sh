#!/usr/bin/env bash
# browser_test.sh PRESET: builds what the test of the trend page needs, and runs it.
source "$(dirname "$0")/common.sh"
preset=$1
folder=build/$preset/browser

say "browser test, preset $preset"
configure "$preset"
build "$preset" orva_host orva_database orva_sqlite orva_events_log orva_web
[[ -e build/$preset/share/orva/web/index.html ]] || fail "the trend page was not built: npm could not fetch its library"
if ! cmp -s tests/browser/package-lock.json "$folder/package-lock.json"; then
  mkdir -p "$folder"
  cp tests/browser/{package.json,package-lock.json,.npmrc} "$folder/"
  if ! npm --prefix "$folder" ci --ignore-scripts --silent; then
    rm "$folder/package-lock.json"
    fail "npm could not fetch playwright-core"
  fi
fi
ORVA_BUILD=build/$preset ORVA_PLAYWRIGHT=$folder node --test tests/browser/trend_page.test.mjs
say "screenshots: build/$preset/screenshots"
