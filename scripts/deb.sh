#!/bin/bash
# deb.sh build OUT: the Debian packages of a copy of this tree, built in OUT (dpkg-buildpackage
#                   -us -uc -b, test suite off: `make test` runs it), then checked by lintian.
# deb.sh install OUT: installs them on this machine (as root) and checks what an operator and a
#                   developer reach: configstorectl --help, man configstorectl, pkg-config.
set -euo pipefail
mode=$1
out=$2
src="$(cd "$(dirname "$0")/.." && pwd)"

if [ "$mode" = build ]; then
  rm -rf "$out"
  mkdir -p "$out/src"
  tar -C "$src" --exclude=./.git --exclude='./build*' --exclude="./$out" -cf - . | tar -xf - -C "$out/src"
  started=$(date +%s)
  (cd "$out/src" && DEB_BUILD_OPTIONS="nocheck parallel=${JOBS:-$(nproc)}" DEB_BUILD_PROFILES=nocheck \
     dpkg-buildpackage -us -uc -b >../build.log 2>&1) || { tail -40 "$out/build.log" >&2; exit 1; }
  echo "deb: $(cd "$out" && ls -- *.deb | xargs) built in $(($(date +%s) - started)) s"
  lintian --fail-on error "$out"/*.changes
  exit 0
fi

[ "$mode" = install ] || { echo "usage: deb.sh build|install OUT" >&2; exit 2; }
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
debs=()
for deb in "$out"/*.deb; do [[ $deb == *-dbgsym_* ]] || debs+=("$deb"); done
$SUDO dpkg -i "${debs[@]}" >/dev/null
configstorectl --help | grep '^subcommands:' >/dev/null
man -P cat configstorectl 2>/dev/null | grep 'configstorectl - control the configuration store' >/dev/null
[ "$(pkg-config --modversion configstore)" = "$(dpkg-query -W -f='${Version}' libconfigstore-dev)" ]
echo "deb: installed; configstorectl --help, man configstorectl and pkg-config --modversion configstore work"
