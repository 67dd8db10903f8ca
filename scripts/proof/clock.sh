#!/usr/bin/env bash
# Everything that the controller's clock may do: the whole table, and a host whose clock is moved.
source "$(dirname "$0")/../lib/common.sh"
source scripts/lib/proof.sh

if (($# > 0)); then
  echo "usage: scripts/proof/clock.sh"
  [[ $1 == -h || $1 == --help ]] && exit 0
  exit 2
fi

if ((EUID == 0)); then scripts/setup.sh --fleet; else scripts/setup.sh; fi
say "build dev"
configure dev
build dev orva_unit_tests

# A host whose clock alone is moved, and two more that exchange records with it.
if compgen -G '/usr/lib/*/faketime/libfaketimeMT.so.1' >/dev/null && ((EUID == 0)); then
  for name in source-clock puller-clock; do
    status=0
    scripts/fleet-proof.sh --case $name || status=$?
    case $status in
      0) proved_before=$((proved_before + 1)) ;;
      2)
        skipped_before=$((skipped_before + 1))
        say "$name cannot be tried here"
        ;;
      *) failed_before=$((failed_before + 1)) ;;
    esac
  done
else
  skipped_before=2
  say "no host's clock is moved: that needs root, and faketime, which scripts/setup.sh --fleet installs"
fi

say "the table"
prove build/dev/bin/orva_unit_tests --gtest_filter='*ClockTable*:*AClockThat*:*AClockSet*'
