#!/bin/bash
# installed.sh consumer|units SOURCE_DIR BUILD_DIR: installs the build under a temporary prefix and
# checks what a caller or the host gets there.
#   consumer: examples/consumer, built with CMake (shared and static library) and with pkg-config,
#             boots a copy of examples/host; the installed headers compile without the source tree;
#             the shared library has its soname and exports only the library's own namespaces.
#   units:    systemd-analyze verify on the installed units; plonshd serves a socket handed to it
#             by socket activation. Skipped (exit 77) with the reason when systemd-analyze cannot run.
set -euo pipefail
# grep reads all its input (no -q): under pipefail, a producer cut off by an early exit would fail the pipe.
mode=$1
src=$2
build=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
fail() { echo "FAIL: $*" >&2; exit 1; }
fresh_root() { rm -rf "$work/$1"; cp -a "$src/examples/host" "$work/$1"; echo "$work/$1"; }

if [ "$mode" = consumer ]; then
  expected="ramdisk 0
load 0
stages recorded
install info installed by the consumer
rows some
bad document refused with 1080"
  check_run() {  # NAME PROGRAM [ENV...]
    local out
    out=$(env "${@:3}" "$2" "$(fresh_root "root-$1")") || fail "$1 exited with $?"
    [ "$out" = "$expected" ] || fail "$1 printed:"$'\n'"$out"$'\n'"expected:"$'\n'"$expected"
  }

  cmake -S "$src/examples/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$work/cmake" -j 2 >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; fail "CMake build"; }
  check_run cmake-shared "$work/cmake/consumer"
  check_run cmake-static "$work/cmake/consumer_static"
  ldd "$work/cmake/consumer" | grep "libconfigstore.so.1 => $prefix" >/dev/null || fail "consumer does not use $prefix"

  pcdir=$(dirname "$(find "$prefix" -name configstore.pc)")
  export PKG_CONFIG_PATH=$pcdir
  read -r -a flags <<<"$(pkg-config --cflags --libs configstore)"
  c++ -std=c++20 "$src/examples/consumer/main.cpp" "${flags[@]}" -o "$work/pc-consumer"
  check_run pkg-config "$work/pc-consumer" LD_LIBRARY_PATH="$(pkg-config --variable=libdir configstore)"

  # Every installed header at once, with nothing of the source tree on the include path.
  (cd "$prefix/include/configstore" && find . -name '*.h' | sed 's|^\./\(.*\)|#include "\1"|') >"$work/all.cpp"
  c++ -std=c++20 -fsyntax-only -I"$prefix/include/configstore" "$work/all.cpp" || fail "installed headers"

  lib=$(find "$prefix" -name 'libconfigstore.so.1')
  readelf -d "$lib" | grep 'Library soname: \[libconfigstore.so.1\]' >/dev/null || fail "soname"
  leaked=$(nm -D --defined-only -C "$lib" | cut -d' ' -f3- |
           grep -Ev '^((typeinfo|typeinfo name|vtable) for )?(QorConfigStore|HostCtl::Lib)::|^CONFIGSTORE_1$' || true)
  [ -z "$leaked" ] || fail "exported beyond the library's namespaces:"$'\n'"$(echo "$leaked" | head -20)"
  echo "consumer: CMake (shared, static) and pkg-config builds ran; headers, soname and exports checked"
  exit 0
fi

[ "$mode" = units ] || fail "unknown mode $mode"
command -v systemd-analyze >/dev/null || { echo "SKIPPED: systemd-analyze is not installed"; exit 77; }
# A unit known to be sound tells whether systemd-analyze can work in this machine at all.
printf '[Service]\nType=oneshot\nExecStart=/bin/true\n' >"$work/probe.service"
if ! probe=$(systemd-analyze verify "$work/probe.service" 2>&1); then
  echo "SKIPPED: systemd-analyze verify cannot run here: $probe"
  exit 77
fi
units=$(find "$prefix/lib/systemd/system" -type f | sort)
[ "$(echo "$units" | wc -l)" = 3 ] || fail "expected three units, found: $units"
# The units' Documentation= pages are looked up among the installed man pages.
# shellcheck disable=SC2086
out=$(MANPATH="$prefix/share/man" systemd-analyze verify $units 2>&1) || fail "systemd-analyze verify:"$'\n'"$out"
# Warnings do not change the exit status; any line about one of our units is a fault.
if echo "$out" | grep -E 'configstore-boot|plonshd'; then fail "systemd-analyze verify warned"; fi

# plonshd under socket activation, as plonshd.socket starts it.
root=$(fresh_root root-plonshd)
systemd-socket-activate -l "$work/plonshd.sock" "$prefix/bin/plonshd" --root "$root" >"$work/activate.log" 2>&1 &
activator=$!
for _ in $(seq 100); do [ -S "$work/plonshd.sock" ] && break; sleep 0.1; done
reply=$(python3 - "$work/plonshd.sock" <<'PY'
import socket, sys
s = socket.socket(socket.AF_UNIX)
s.connect(sys.argv[1])
s.sendall(b"pwd\nquit\n")
data = b""
while chunk := s.recv(4096):
    data += chunk
print(data.decode(), end="")
PY
) || true
kill "$activator" 2>/dev/null || true
wait "$activator" 2>/dev/null || true
[ "$reply" = $'ok /\nok' ] || fail "plonshd under socket activation replied '$reply' ($(cat "$work/activate.log"))"
echo "units: systemd-analyze verify passed on $(echo "$units" | xargs -n1 basename | xargs); plonshd served an activated socket"
