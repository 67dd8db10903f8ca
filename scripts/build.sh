#!/usr/bin/env bash
# Builds one preset without running anything.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/build.sh [--preset NAME]

Installs what is missing and builds a preset: dev (default), release, asan, tsan, clang or armhf.
USAGE
}

preset=dev
while (($# > 0)); do
  case $1 in
    --preset) preset=${2:?--preset needs a name} && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

case $preset in
  armhf) scripts/setup.sh --armhf ;;
  clang) scripts/setup.sh --checks ;;
  asan) scripts/setup.sh --fuzz ;;
  *) scripts/setup.sh ;;
esac
configure "$preset"
build "$preset"
