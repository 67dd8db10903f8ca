#!/usr/bin/env bash
# Proves with three hosts in network namespaces that what one pulls from the others is theirs.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/fleet-proof.sh [--minutes N] [--case NAME]... [--bin FOLDER]

Starts two hosts that write and one that pulls, disturbs them, and compares the histories each time.
Needs root. What it makes is inside namespaces of its own, and gone when it ends.
  --minutes N   spread the cases over N minutes, a sample a second (default: two to three minutes)
  --case NAME   only this case: undisturbed, loss, relay, source-stopped, puller-stopped,
                store-lost, store-lost-clock-behind, source-clock, puller-clock
  --bin FOLDER  take orva_host from there (default: installs what is missing, builds the release preset)
Exit code 0: all fine; 1: differences, which it tells; 2: cannot be tried here.
USAGE
}

bin=
options=()
while (($# > 0)); do
  case $1 in
    --minutes)
      [[ ${2:?--minutes needs a number} =~ ^[1-9][0-9]{0,3}$ ]] || usage_error "--minutes needs a number, not $2"
      options+=(--minutes "$2") && shift
      ;;
    --case) options+=(--case "${2:?--case needs a name}") && shift ;;
    --bin) bin=$(cd "$OLDPWD" && realpath "${2:?--bin needs a folder}") && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done

cannot() {
  echo "fleet-proof.sh: $*" >&2
  exit 2
}

((EUID == 0)) || cannot "needs root, for network namespaces"
# All of the proof's namespaces, mounts and processes are inside of these, and end with them.
inside=(unshare --mount --net --pid --fork --kill-child --mount-proc)
"${inside[@]}" true 2>/dev/null || cannot "namespaces do not work here"

if [[ -z $bin ]]; then
  scripts/setup.sh --fleet
  say "build release"
  configure release
  build release orva_host orva_database orva_sqlite
  bin=build/release/bin
fi

python3 -B tests/fleet/comparison_test.py --quiet || fail "the comparison itself is broken"

folder=$(mktemp -d "${TMPDIR:-/tmp}/orva_fleet_XXXXXX")
proof=
on_exit() {
  local result=$?
  if [[ -n $proof ]]; then kill -KILL "$proof" 2>/dev/null || true; fi
  if ((result == 1)); then
    say "what the hosts wrote stays in $folder"
  else
    rm -rf "$folder"
  fi
}
trap on_exit EXIT
trap 'exit 130' INT TERM HUP

"${inside[@]}" python3 -B tests/fleet/fleet_proof.py --program "$(realpath "$bin/orva_host")" \
  --folder "$folder" "${options[@]}" &
proof=$!
result=0
wait "$proof" || result=$?
proof=
exit "$result"
