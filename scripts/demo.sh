#!/bin/bash
# The main job on a fresh copy of the sample host root: what a boot does, step by step.
set -euo pipefail
ctl=$1
root=$2
src="$(cd "$(dirname "$0")/.." && pwd)/examples/host"

rm -rf "$root"
mkdir -p "$root"
cp -a "$src/." "$root/"
root="$(cd "$root" && pwd)"

step() { echo; echo "== $*"; }
step "host root: $root"
step "configstorectl create-store"
"$ctl" --root "$root" create-store
step "configstorectl boot-kind"
"$ctl" --root "$root" boot-kind || true
step "configstorectl boot-mode get"
"$ctl" --root "$root" boot-mode get || true
step "configstorectl metrics"
"$ctl" --root "$root" metrics
