#!/usr/bin/env bash
# package_test.sh ARCH BASE MADE: tries the packages of MADE/first and MADE/next in a copy of BASE.
# Run by scripts/package-test.sh in namespaces that end with it, the network's among them; file 9 is
# the network that apt may use.
source "$(dirname "$0")/common.sh"
arch=$1
base=$2
made=$(realpath "$3")

root=$PWD/build/package-root-$arch
logs=$made/logs
address=http://127.0.0.1:8580
passed=0
failed=0

# step NAME COMMAND...: one line; what the command says goes to a log.
step() {
  local name=$1 start=$SECONDS log status
  log=$logs/$((passed + failed + 1)).log
  shift
  set +e
  (set -e && "$@") >"$log" 2>&1 </dev/null
  status=$?
  set -e
  if ((status == 0)); then
    passed=$((passed + 1))
    printf 'ok      %s (%d s)\n' "$name" $((SECONDS - start))
  else
    failed=$((failed + 1))
    printf 'FAILED  %s (%d s); the end of %s:\n' "$name" $((SECONDS - start)) "$log"
    tail -n 15 "$log" | sed 's/^/        /'
  fi
}

# ---- what steps are made of; each says what is wrong
is() { [[ $1 == "$2" ]] || { echo "found \"$1\" instead of \"$2\"" && return 1; }; }
there() { [[ -e $root$1 || -L $root$1 ]] || { echo "$1 is missing" && return 1; }; }
gone() { [[ ! -e $root$1 && ! -L $root$1 ]] || { echo "$1 is still there" && return 1; }; }
has_line() { grep -qE -- "$2" "$1" || { echo "$1 has no line with $2" && tail -n 20 "$1" && return 1; }; }
within() { chroot "$root" /usr/bin/env -i PATH="$PATH" LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
apt() {
  nsenter --net=/proc/self/fd/9 chroot "$root" /usr/bin/env DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 \
    apt-get -y --no-install-recommends -o DPkg::Options::=--force-unsafe-io "$@"
}
install_packages() {
  local folder=$1 name files=()
  shift
  for name in "$@"; do files+=("/packages/$folder/$(basename "$made/$folder/orva-$name"_*.deb)"); done
  apt install "${files[@]}"
}
owner_and_mode() { within stat -c '%U:%G %a' "$1"; }

# ---- the host, started as its service would start it
unit=$root/usr/lib/systemd/system/orva-host.service
setting() { sed -n "s/^$1=//p" "$unit"; }

start_host() {
  local command out=$logs/host.out
  read -ra command <<<"$(setting ExecStart)"
  rm -f "$logs"/host.{pid,exit,out,log}
  (
    chroot "$root" /usr/bin/env -i /usr/bin/setpriv --reuid="$(setting User)" --regid="$(setting Group)" \
      --init-groups --no-new-privs --inh-caps=-all --bounding-set=-all \
      /usr/bin/env -C "$(setting WorkingDirectory)" "${command[@]}" >"$out" 2>"$logs/host.log" &
    echo $! >"$logs/host.pid"
    wait $! && echo 0 >"$logs/host.exit" || echo $? >"$logs/host.exit"
  ) &
  for _ in {1..600}; do
    if grep -q '^listening on' "$out" 2>/dev/null; then break; fi
    if [[ -e $logs/host.exit ]]; then break; fi
    sleep 0.2
  done
  cat "$out" "$logs/host.log"
  has_line "$out" "^listening on $address"
  is "$(ps -o uid= -p "$(cat "$logs/host.pid")" | tr -d ' ')" "$(within id -u orva)"
}

stop_host() {
  kill -TERM "$(cat "$logs/host.pid")"
  for _ in {1..150}; do
    if [[ -e $logs/host.exit ]]; then break; fi
    sleep 0.2
  done
  cat "$logs/host.log"
  is "$(cat "$logs/host.exit")" 0
}

# As the service's line says it: what a minimal system lacks is missing here as well.
reload_host() {
  eval "within MAINPID='$(cat "$logs/host.pid")' $(setting ExecReload)"
  for _ in {1..50}; do
    if grep -q 'configuration was read again' "$logs/host.log"; then return; fi
    sleep 0.2
  done
  has_line "$logs/host.log" 'configuration was read again'
}

fetch() { curl --silent --show-error --fail --max-time 60 "$address/$1" "${@:2}"; }

# history FILE ITEM ROWS: what `orva read` gives of the last day, once there are so many rows.
history() {
  for _ in {1..60}; do
    within orva read "$2" --from -1d --utc --csv >"$1"
    if (($(wc -l <"$1") > $3)); then break; fi
    sleep 1
  done
  cat "$1"
  (($(wc -l <"$1") > $3)) || { echo "less than $3 rows" && return 1; }
}

# ---- the steps
check_packages() {
  is "$(dpkg-deb -f "$made"/first/orva-host_*.deb Architecture)" "$arch"
  lintian --fail-on error --tag-display-limit 0 "$made"/first/*.deb
}

check_same_bytes() {
  local file
  for file in "$made"/first/*.deb; do cmp "$file" "$made/again/$(basename "$file")"; done
}

check_hardening() { systemd-analyze security --offline=yes --no-pager --threshold=20 "$unit"; }

check_installed() {
  is "$(within dpkg-query -W -f='${db:Status-Status}' orva-host)" installed
  is "$(within id -un orva)" orva
  is "$(owner_and_mode /var/lib/orva)" 'orva:orva 750'
  is "$(owner_and_mode /etc/orva/host.json)" 'root:orva 640'
  there /etc/systemd/system/multi-user.target.wants/orva-host.service
  within setpriv --reuid=orva --regid=orva --init-groups \
    orva_host --check-config --config /etc/orva/host.json
  is "$(within orva --version)" "orva $(dpkg-deb -f "$made"/first/orva-cli_*.deb Version)"
}

read_over_http() {
  local rows=$logs/http.csv
  fetch '' >"$logs/page.html"
  has_line "$logs/page.html" '<title>'
  fetch uplot.js >"$logs/uplot.js"
  has_line "$logs/uplot.js" uPlot
  for _ in {1..60}; do
    fetch 'api/history?item=Plant/Tank/Level&format=csv' >"$rows"
    if (($(wc -l <"$rows") > 3)); then break; fi
    sleep 1
  done
  has_line "$rows" '^20[0-9-]*T[0-9:.]*Z,Plant/Tank/Level,[0-9.]+,0,good'
}

read_by_command() {
  history "$logs/before.csv" Plant/Tank/Level 3
  has_line "$logs/before.csv" '^20[0-9-]*T[0-9:.]*Z,Plant/Tank/Level,[0-9.]+,0,good'
  within orva status
}

# kept ITEM FILE: the oldest sample of FILE is still in the history.
kept() {
  history "$logs/now.csv" "$1" 1 >/dev/null
  grep -qxF -- "$(sed -n 2p "$2")" "$logs/now.csv" ||
    { echo "$(sed -n 2p "$2") is missing in:" && cat "$logs/now.csv" && return 1; }
}

build_template() {
  local source=/usr/share/doc/orva-dev/examples/provider_template
  if [[ $arch == "$(dpkg --print-architecture)" ]]; then
    apt install g++ cmake make
    within cmake -S "$source" -B /tmp/template
    within cmake --build /tmp/template
    within cmake --install /tmp/template
  else
    cmake -S "$root$source" -B "$logs/template" -G Ninja \
      -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/armhf.cmake" -Dorva_database_DIR="$root/usr/lib/cmake/orva_database"
    cmake --build "$logs/template"
    cmake --install "$logs/template"
  fi
  there /usr/lib/orva/liborva_template.so
}

# An administrator's change: a further add-in, with an archive of its type for one variable.
use_template() {
  local file=$root/etc/orva/host.json
  sed -i -e 's/\("addins": \[.*\)\],/\1, "liborva_template.so"],/' \
    -e '/"path": "System\/Processes"/{n;s/"0": {"archive": 0}/"0": {"archive": 2}/}' \
    -e '0,/^    \],$/s||    ,{"connection": {"providerType": "template", "location": "/var/lib/orva"},\n     "limits": {"writeBufferSize": 1000}, "filter": {"allValues": true}}],|' \
    "$file"
  is "$(grep -c 'liborva_template.so\|"archive": 2\|"providerType": "template"' "$file")" 3
  cp -p "$file" "$logs/host.json"
  is "$(owner_and_mode /etc/orva/host.json)" 'root:orva 640'
}

read_template() {
  history "$logs/template.csv" System/Processes 3
  there /var/lib/orva/10-0
}

upgrade() {
  install_packages next database sqlite host cli dev
  local file
  is "$(within dpkg-query -W -f='${Version}' orva-host)" "$(dpkg-deb -f "$made"/next/orva-host_*.deb Version)"
  cmp "$logs/host.json" "$root/etc/orva/host.json"
  is "$(owner_and_mode /etc/orva/host.json)" 'root:orva 640'
  for file in "$root"/etc/orva/*.dpkg-*; do gone "${file#"$root"}"; done
}

remove() {
  apt remove orva-host
  gone /usr/bin/orva_host
  gone /usr/lib/systemd/system/orva-host.service
  gone /usr/share/orva
  there /etc/orva/host.json
  there /var/lib/orva/fast
  is "$(owner_and_mode /var/lib/orva)" 'orva:orva 750'
}

install_again() {
  install_packages next host
  cmp "$logs/host.json" "$root/etc/orva/host.json"
  start_host
}

purge() {
  local left
  rm "$root/usr/lib/orva/liborva_template.so"
  apt purge orva-host orva-sqlite orva-database orva-cli orva-dev
  left=$(find "$root" -xdev \( -path "$root/packages" -o -path "$root/tmp" -o -path "$root/proc" \
    -o -path "$root/var/log" \) -prune -o -name '*orva*' -print)
  is "$left" ''
}

mkdir -p "$logs"
say "a copy of the bare Debian for $arch in $root"
rm -rf "$root"
cp -a "$base" "$root"
mkdir "$root/packages"
cp -r "$made/first" "$made/next" "$root/packages/"
mount -t proc proc "$root/proc"
ip link set lo up

step 'the packages have no faults that lintian calls errors' check_packages
step 'the same commit gives the same bytes' check_same_bytes
step 'apt installs host, SQLite archives and command line' install_packages first database sqlite host cli
step 'there are user, folders and service; the configuration is fine' check_installed
if command -v systemd-analyze >/dev/null; then step 'the service is hardened' check_hardening; fi
step 'the host starts as its user' start_host
step 'it serves its page and a read over HTTP' read_over_http
step 'the command line reads it' read_by_command
step 'a reload reads the configuration again' reload_host
step 'it stops' stop_host
step 'apt installs the development files' install_packages first dev
step 'the provider template is built with them' build_template
step 'a changed configuration names the template' use_template
step 'the host starts with it' start_host
step 'history from before is there' kept Plant/Tank/Level "$logs/before.csv"
step 'the template keeps history' read_template
step 'it stops' stop_host
step 'an upgrade keeps the changed configuration' upgrade
step 'the new version starts' start_host
step 'history from before is there, in SQLite' kept Plant/Tank/Level "$logs/before.csv"
step 'and in the template' kept System/Processes "$logs/template.csv"
step 'it stops' stop_host
step 'removal keeps data and configuration' remove
step 'installed again, it finds its configuration' install_again
step 'and its history' kept Plant/Tank/Level "$logs/before.csv"
step 'it stops' stop_host
step 'purging leaves nothing' purge

umount "$root/proc"
if ((failed == 0)); then rm -rf "$root"; fi
echo "$passed passed, $failed failed"
((failed == 0))
