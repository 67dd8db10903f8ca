#!/usr/bin/env bash
# browser_test.sh PRESET: builds what the test of the trend page needs, and runs it.
source "$(dirname "$0")/common.sh"
source scripts/lib/page_tools.sh
preset=$1
folder=build/$preset/browser

say "browser test, preset $preset"
configure "$preset"
build "$preset" orva_host orva_database orva_sqlite orva_events_log orva_web
[[ -e build/$preset/share/orva/web/index.html ]] || fail "the trend page was not built: npm could not fetch its library"
install_playwright "$folder"
ORVA_BUILD=build/$preset ORVA_PLAYWRIGHT=$folder node --test tests/browser/trend_page.test.mjs
say "screenshots: build/$preset/screenshots"
