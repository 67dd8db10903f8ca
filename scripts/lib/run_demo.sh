#!/usr/bin/env bash
# run_demo.sh SECONDS PORT: runs the example plant with the built host; 0 seconds is until interrupted.
source "$(dirname "$0")/common.sh"
seconds=$1
port=$2

say "the example plant on http://127.0.0.1:$port"
exec timeout --preserve-status --signal=TERM "$seconds" \
  build/release/bin/orva_host --config examples/plant.json
