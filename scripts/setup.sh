#!/usr/bin/env bash
# Installs the system packages the project is built with, those that are missing and no others.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  cat <<USAGE
usage: scripts/setup.sh [--checks] [--armhf] [--page] [--fleet] [--fuzz] [--package]

Installs what building and testing needs from the system's packages (Debian 12), if it is missing.
  --checks  also clang, clang-format, clang-tidy and gcovr
  --armhf   also the 32-bit ARM compiler, qemu and the sysroot that the armhf preset uses
  --page    also node and npm, where they are missing, and the browser for its test
  --fleet   also what scripts/fleet-proof.sh needs: network namespaces, loss, other clocks
  --fuzz    also clang, and its fuzzer and sanitizers
  --package also what scripts/package.sh and scripts/package-test.sh need
USAGE
}

packages=(g++ cmake ninja-build pkg-config ccache mold git
  libboost-dev rapidjson-dev liblua5.2-dev libsqlite3-dev sqlite3 libzstd-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev)
armhf=no
while (($# > 0)); do
  case $1 in
    --checks) packages+=(clang clang-format clang-tidy gcovr) ;;
    --armhf)
      packages+=(g++-arm-linux-gnueabihf qemu-user-static)
      armhf=yes
      ;;
    --page)
      packages+=(chromium fonts-dejavu-core)
      # Any node from elsewhere is fine too.
      command -v node >/dev/null && command -v npm >/dev/null || packages+=(nodejs npm)
      ;;
    --fleet) packages+=(python3 iproute2 iptables faketime) ;;
    --fuzz) packages+=(clang libclang-rt-dev) ;;
    --package)
      packages+=(dpkg-dev file lintian debootstrap curl iproute2 procps)
      command -v node >/dev/null && command -v npm >/dev/null || packages+=(nodejs npm)
      ;;
    -h | --help)
      usage
      exit 0
      ;;
    *)
      echo "setup.sh: unknown argument $1" >&2
      usage >&2
      exit 2
      ;;
  esac
  shift
done

missing=()
for package in "${packages[@]}"; do
  state=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
  if [[ $state != installed ]]; then missing+=("$package"); fi
done

install_packages() {
  local as_root=()
  if ((EUID != 0)); then
    if ! sudo -n true 2>/dev/null; then
      echo "setup.sh: packages are missing; as root run: apt-get install ${missing[*]}" >&2
      exit 1
    fi
    as_root=(sudo -n)
  fi
  local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive
    apt-get -qq -o DPkg::Lock::Timeout=300)
  "${apt[@]}" update </dev/null
  "${apt[@]}" install -y --no-install-recommends "$@" </dev/null >/dev/null
}

if ((${#missing[@]} == 0)); then
  echo "setup: all ${#packages[@]} packages are installed"
else
  echo "setup: installing ${missing[*]}"
  install_packages "${missing[@]}"
  echo "setup: done"
fi
if [[ $armhf == yes ]]; then scripts/armhf-sysroot.sh; fi
