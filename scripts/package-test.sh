#!/usr/bin/env bash
# Installs, uses, upgrades, removes and purges the packages in a bare Debian.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/package-test.sh [--arch NAME]

Builds the packages twice, in two versions, and tries them in a bare Debian of their own in build/:
installs them, starts the host as its service does, reads history, builds and loads the provider
template, upgrades, removes, purges. One line for each step. Needs root.
  --arch NAME  this machine's (default), or armhf, run by qemu
Exit code 0: all steps passed; 1: some failed; 2: cannot be tried here.
USAGE
}

machine=$(dpkg --print-architecture)
arch=$machine
while (($# > 0)); do
  case $1 in
    --arch) arch=${2:?--arch needs a name} && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done
[[ $arch == "$machine" || $arch == armhf ]] || usage_error "packages for $arch cannot be made here"

cannot() {
  echo "package-test.sh: $*" >&2
  exit 2
}
((EUID == 0)) || cannot "needs root, for a Debian in a folder"
inside=(unshare --mount --pid --fork --kill-child --mount-proc)
"${inside[@]}" true 2>/dev/null || cannot "namespaces do not work here"

# The packages, the same once more, and a later version.
made=build/package-test/$arch
rm -rf "$made"
scripts/setup.sh --package
scripts/package.sh --arch "$arch" --out "$made/first"
scripts/package.sh --arch "$arch" --out "$made/again" >/dev/null
version=$(dpkg-deb -f "$made"/first/orva-host_*.deb Version)
scripts/package.sh --arch "$arch" --out "$made/next" --package-version "$version+1" >/dev/null

emulation=()
if [[ $arch != "$machine" ]]; then emulation=(scripts/lib/arm_programs.sh); fi
base=build/package-base-$arch
"${inside[@]}" "${emulation[@]}" scripts/lib/debian_base.sh "$arch" "$base"
"${inside[@]}" --net "${emulation[@]}" scripts/lib/package_test.sh "$arch" "$base" "$made" 9</proc/self/ns/net
