#!/bin/bash
# Runs the reliability suites of a configured build and prints their figures: fault sweeps (with
# totals), crash loop, races of processes, corrupt backups and hostile documents. CONFIGSTORE_LONG=1 runs the long
# versions (every fault point, a thousand kills).
#   scripts/reliability-figures.sh BUILD_DIR
set -euo pipefail
build=${1:?usage: $0 BUILD_DIR}
cmake --build "$build" -j "${JOBS:-$(nproc)}" >/dev/null
status=0
out=$(ctest --test-dir "$build" -R 'FaultSweep|CrashSafety|RaceTest|CorruptBackup|HostileDocument' -j "${JOBS:-$(nproc)}" \
  --output-on-failure -V) || status=$?
echo "$out" | grep -o 'SWEEP .*' | sort
echo "$out" | grep -o 'SWEEP .*' | awk '{for (i = 2; i <= NF; i++) {
  split($i, a, "="); if (a[1] != "kinds" && a[1] != "op" && a[1] != "family") t[a[1]] += a[2] }}
  END {printf "sweep totals: %d sweeps", NR; for (k in t) printf ", %s %d", k, t[k]; print ""}'
echo "$out" | grep -oE '(crash seed|race|hostile|corrupt) .*' | sort
echo "$out" | grep -E '% tests passed'
exit "$status"
