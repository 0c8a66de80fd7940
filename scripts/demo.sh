#!/bin/bash
# The main job on a fresh copy of the sample host root: the first boot of a newly installed host
# (a new store filled from the boot configuration document), then an ordinary reboot (the store
# restored from its backup) that applies a desired configuration an operator staged and previewed
# in between, each with its boot report and the resulting metrics.
set -euo pipefail
ctl=$1
root=$2
src="$(cd "$(dirname "$0")/.." && pwd)/examples/host"

rm -rf "$root"
mkdir -p "$root"
cp -a "$src/." "$root/"
root="$(cd "$root" && pwd)"
cs() { "$ctl" --root "$root" "$@"; }
step() { echo; echo "== $*"; }

boot() {
  step "$1: configstorectl setup-ramdisk"
  cs setup-ramdisk
  step "$1: configstorectl load"
  cs load
  step "$1: configstorectl boot-kind"
  cs boot-kind
  step "$1: configstorectl boot-state cleanup  (the host's boot scripts, once the load is done)"
  cs boot-state cleanup
  step "$1: configstorectl metrics"
  cs metrics
}

step "host root: $root"
boot "first boot"

step "during the day an operator stages a desired configuration: configstorectl set-desired examples/desired.json"
cs set-desired "$src/../desired.json"
step "and previews what the next boot will do with it: configstorectl plan"
cs plan

step "the host's backup process saves the store; the reboot empties the ramdisk and /var/run, and the installer's first-boot marker is gone"
mkdir -p "$root/var/lib/talvex/configstore/backup"
cp "$root/etc/talvex/configstore/current-store-1" "$root/etc/talvex/configstore/datafile-store" \
   "$root/var/lib/talvex/configstore/backup/"
rm -f "$root/etc/talvex/configstore/current-store-1" "$root/etc/talvex/configstore/datafile-store"
rm -f "$root/var/lib/talvex/firstboot/current-store-1"
rm -rf "$root/var/run"

boot "ordinary boot"
