#!/usr/bin/env bash
# debian_base.sh ARCH FOLDER: a bare Debian in FOLDER, unless it is there. Its mirror and what apt
# needs to know about it are those of this machine. For another architecture the kernel has to run
# its programs by qemu already.
source "$(dirname "$0")/common.sh"
arch=$1
base=$2

if [[ -f $base/.complete ]]; then exit; fi
rm -rf "$base"
read -r mirror suite < <(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' \
  'Created-By: Packages' 'Origin: Debian' 'Component: main' | grep -v -- - | head -n 1) ||
  fail "apt on this machine knows no Debian mirror"

say "a bare Debian $suite for $arch in $base"
mkdir -p "$base"
log=$base-debootstrap.log
debootstrap --variant=minbase --arch="$arch" "$suite" "$base" "$mirror" >"$log" 2>&1 ||
  { tail -n 20 "$log" >&2 && fail "debootstrap failed; its log: $log"; }
apt-config dump --no-empty --format '%f "%v";%n' \
  Acquire::Check-Valid-Until Acquire::Check-Date Acquire::http::Proxy Acquire::https::Proxy \
  >"$base/etc/apt/apt.conf.d/99machine"
chroot "$base" apt-get -qq update
touch "$base/.complete"
