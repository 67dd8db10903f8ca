#!/usr/bin/env bash
# Unpacks the 32-bit ARM packages that a cross build needs into a folder of their own; the system's
# package database is not touched.
set -euo pipefail

usage() {
  cat <<USAGE
usage: scripts/armhf-sysroot.sh [DIR [PACKAGE...]]

Unpacks Debian's armhf packages into DIR (default: \$ORVA_ARMHF_SYSROOT, else build/armhf-sysroot).
Without PACKAGE the ones that this project's armhf preset needs. Does nothing if DIR holds them.
USAGE
}
if [[ ${1:-} == -h || ${1:-} == --help ]]; then usage; exit 0; fi

root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-${ORVA_ARMHF_SYSROOT:-$root/build/armhf-sysroot}}
packages=("${@:2}")
if ((${#packages[@]} == 0)); then
  packages=(libc6-dev libstdc++-12-dev libgcc-12-dev libsqlite3-dev liblua5.2-dev libgtest-dev
    libgmock-dev libbenchmark-dev libboost-dev rapidjson-dev libcli11-dev libzstd-dev zlib1g-dev
    libasan8 libubsan1)
fi

wanted=$(printf '%s\n' "${packages[@]}" | sort)
if [[ -f $out/.packages && $(cat "$out/.packages") == "$wanted" ]]; then
  echo "armhf sysroot: $out is complete"
  exit 0
fi
echo "armhf sysroot: unpacking ${#packages[@]} packages and what they need into $out"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/{etc,state/lists/partial,cache/archives/partial} "$out"
: >"$work/status"
# The security suite lacks part of the architecture's packages; the main suite has all of them.
awk 'BEGIN{RS="";ORS="\n\n"} !/-security/' /etc/apt/sources.list.d/debian.sources \
  >"$work/etc/debian.sources"
options=(-qq -o APT::Architecture=armhf -o APT::Architectures::=armhf
  -o Dir::Etc::sourcelist="$work/etc/debian.sources" -o Dir::Etc::sourceparts=-
  -o Dir::State="$work/state" -o Dir::State::status="$work/status" -o Dir::Cache="$work/cache"
  -o APT::Sandbox::User=root -o Debug::NoLocking=1)
apt-get "${options[@]}" update
apt-get "${options[@]}" install -y --no-install-recommends --download-only "${packages[@]}" \
  >/dev/null
for package in "$work"/cache/archives/*.deb; do
  dpkg-deb -x "$package" "$out"
done

# Absolute links would leave the folder.
find "$out" -type l -lname '/*' -printf '%p\t%l\n' | while IFS=$'\t' read -r link target; do
  ln -sfn "$(realpath -ms --relative-to="$(dirname "$link")" "$out$target")" "$link"
done
printf '%s\n' "$wanted" >"$out/.packages"
echo "armhf sysroot: done"
