#!/bin/sh
# Installs every Debian package the build, tests, benchmarks, fuzzers and the Debian package build need.
# Idempotent and quiet when everything is already present; run as root (or via sudo).
set -eu

PACKAGES="cmake make g++ clang libclang-rt-14-dev pkg-config sqlite3 libsqlite3-dev rapidjson-dev libre2-dev
libpugixml-dev libgtest-dev libgmock-dev googletest libbenchmark-dev python3 jq
build-essential debhelper help2man lintian systemd man-db"

missing=""
for p in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
echo "install-deps: installing$missing" >&2
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
# shellcheck disable=SC2086
$SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
