#!/usr/bin/env bash
# Builds the Debian packages.
source "$(dirname "$0")/lib/common.sh"

usage() {
  cat <<USAGE
usage: scripts/package.sh [--arch NAME] [--package-version V] [--out FOLDER]

Installs what is missing, builds the release and makes its Debian packages. The same commit gives the
same bytes: times in them are SOURCE_DATE_EPOCH, or else the commit's.
  --arch NAME          this machine's (default), or armhf by the cross compiler
  --package-version V  of the packages alone (default: the project's version)
  --out FOLDER         where they go (default: build/packages)
USAGE
}

machine=$(dpkg --print-architecture)
arch=$machine
version=
out=$PWD/build/packages
while (($# > 0)); do
  case $1 in
    --arch) arch=${2:?--arch needs a name} && shift ;;
    --package-version) version=${2:?--package-version needs a version} && shift ;;
    --out) out=$(cd "$OLDPWD" && realpath -m "${2:?--out needs a folder}") && shift ;;
    -h | --help) usage && exit 0 ;;
    *) usage_error "unknown argument $1" ;;
  esac
  shift
done
if [[ $arch == "$machine" ]]; then
  preset=package
  scripts/setup.sh --package
elif [[ $arch == armhf ]]; then
  preset=package-armhf
  scripts/setup.sh --package --armhf
else
  usage_error "packages for $arch cannot be made here"
fi

# needed_packages FILE: the packages of the libraries that FILE names.
needed_packages() {
  readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | while read -r library; do
    case $library in
      libc.so.6 | libm.so.6 | ld-linux-armhf.so.3) echo libc6 ;;
      libgcc_s.so.1) echo libgcc-s1 ;;
      libstdc++.so.6) echo libstdc++6 ;;
      liblua5.2.so.0) echo liblua5.2-0 ;;
      libsqlite3.so.0) echo libsqlite3-0 ;;
      libzstd.so.1) echo libzstd1 ;;
      liborva_database.so) echo orva-database ;;
      *) fail "$1 needs $library: add its package here and to packaging/deb/cross_depends.cmake" ;;
    esac
  done
}

# check_depends PACKAGE: what was written by hand is what the programs and libraries need.
check_depends() {
  local folder depends file package needed
  folder=$(mktemp -d)
  dpkg-deb -x "$1" "$folder"
  depends=$(dpkg-deb -f "$1" Depends | tr ',' '\n' | awk '{print $1}')
  # Inside $( ) a failure ends nothing by itself.
  needed=$(find "$folder" -type f \( -name '*.so' -o -path '*/bin/*' \) | while read -r file; do
    needed_packages "$file" || exit 1
  done | sort -u) || exit 1
  rm -rf "$folder"
  for package in $needed; do
    grep -qxF -- "$package" <<<"$depends" || fail "$(basename "$1") lacks the dependency $package"
  done
}

if [[ -z ${SOURCE_DATE_EPOCH:-} ]]; then SOURCE_DATE_EPOCH=$(git log -1 --format=%ct); fi
export SOURCE_DATE_EPOCH

begin=$SECONDS
say "build $preset"
if [[ -n $version ]]; then
  configure "$preset" "-DORVA_PACKAGE_VERSION=$version"
else
  configure "$preset" -UORVA_PACKAGE_VERSION
fi
build "$preset"

say "make the packages for $arch"
made=build/$preset/packages
rm -rf "$made"
(umask 022 && cpack --config "build/$preset/CPackConfig.cmake" >"build/cpack-$arch.log" 2>&1) ||
  { cat "build/cpack-$arch.log" >&2 && fail "cpack failed"; }
if [[ $arch != "$machine" ]]; then
  for package in "$made"/*.deb; do check_depends "$package"; done
fi
mkdir -p "$out"
for package in "$made"/*.deb; do
  cp "$package" "$out/"
  printf '%8d bytes  %s\n' "$(stat -c %s "$package")" "$out/$(basename "$package")"
done
say "done after $((SECONDS - begin)) s"
