#!/usr/bin/env bash
# Checks the format of every tracked C++ file, or mends it with --fix.
source "$(dirname "$0")/lib/common.sh"

usage() { echo "usage: scripts/format.sh [--fix]"; }

mode=(--dry-run -Werror)
case ${1:-} in
  '') ;;
  --fix) mode=(-i) ;;
  -h | --help) usage && exit 0 ;;
  *) usage_error "unknown argument $1" ;;
esac
git ls-files -z '*.cpp' '*.h' | xargs -0 --no-run-if-empty clang-format "${mode[@]}"
echo "format: $(git ls-files '*.cpp' '*.h' | wc -l) files"
