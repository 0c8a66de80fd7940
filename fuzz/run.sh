#!/bin/bash
# Builds the libFuzzer targets with clang (AddressSanitizer + UBSan) in BUILD_DIR and runs them.
#
#   fuzz/run.sh BUILD_DIR replay   every target over its seed corpus (fuzz/corpus/<target>), then
#                                  fuzzed for FUZZ_SECONDS each (default 20): what CI runs
#   fuzz/run.sh BUILD_DIR fuzz     every target fuzzed for FUZZ_SECONDS each (default 300)
#
# FUZZ_TARGETS="a b" picks targets (default: all); FUZZ_JOBS targets run at a time (default 2).
# New inputs that add coverage go to BUILD_DIR/fuzz-corpus/<target> and are kept from run to run.
# Prints one line per target and fails on any crash, leak, sanitizer report or broken contract;
# the input that caused it is kept under BUILD_DIR/fuzz-findings/, the whole output under
# BUILD_DIR/fuzz-logs/<target>.log.
set -euo pipefail

usage() { echo "usage: $0 BUILD_DIR replay|fuzz" >&2; exit 2; }
[ $# -eq 2 ] || usage
build=$1
mode=$2
case "$mode" in
  replay) seconds=${FUZZ_SECONDS:-20} ;;
  fuzz) seconds=${FUZZ_SECONDS:-300} ;;
  *) usage ;;
esac
src="$(cd "$(dirname "$0")/.." && pwd)"
fuzzdir="$src/fuzz"

# target  max_len  dictionary
TABLE="
document_string   8192 json
config_split      4096 schema
boot_document     8192 config
schema_file      16384 schema
default_file      8192 config
desired_document  8192 config
smartnic_document 4096 config
load_store_errors 4096 config
validator_value   4096 config
validator_schema  8192 schema
"
all_targets=$(echo "$TABLE" | awk 'NF {print $1}')
targets=${FUZZ_TARGETS:-$all_targets}
for t in $targets; do
  echo "$all_targets" | grep -qx "$t" || { echo "$0: unknown target $t" >&2; exit 2; }
done

started=$(date +%s)
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
CC=clang CXX=clang++ cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCONFIGSTORE_FUZZ=ON \
  -DCONFIGSTORE_TESTS=OFF -DCONFIGSTORE_WERROR=ON "${launcher[@]}" >/dev/null
cmake --build "$build" --target fuzz_targets -j "${JOBS:-$(nproc)}" >"$build/fuzz-build.log" 2>&1 || {
  tail -40 "$build/fuzz-build.log" >&2
  exit 1
}
build="$(cd "$build" && pwd)"
echo "fuzz: targets built in $(($(date +%s) - started)) s ($mode, $seconds s of fuzzing per target)"

findings="$build/fuzz-findings"
# Sandbox roots live on a RAM file system when there is one, as the store does on a host: every
# SQLite commit syncs, and on a busy disk that makes the store-writing targets ten times slower.
tmpbase="$build/fuzz-tmp"
[ -d /dev/shm ] && [ -w /dev/shm ] && tmpbase="/dev/shm/cs-fuzz-$$"
trap 'rm -rf "$tmpbase"' EXIT
mkdir -p "$findings" "$build/fuzz-logs" "$build/fuzz-results"
export ASAN_OPTIONS="detect_leaks=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"

count_findings() { find "$findings" -maxdepth 1 -name "$1-*" \( -name "*crash-*" -o -name "*leak-*" -o -name "*timeout-*" -o -name "*oom-*" \) | wc -l; }

# Runs one target; writes its figure line to fuzz-results/<target> and its output to fuzz-logs/<target>.log.
run_target() {
  local t=$1 maxlen=$2 dict=$3
  local bin="$build/fuzz/fuzz_$t" seeds="$fuzzdir/corpus/$t" work="$build/fuzz-corpus/$t"
  local log="$build/fuzz-logs/$t.log" tmp="$tmpbase/$t"
  local before t0 status=ok replayed=0 execs=0
  before=$(count_findings "$t")
  t0=$(date +%s.%N)
  rm -rf "$tmp" && mkdir -p "$tmp" "$work"
  : >"$log"
  local common=(-artifact_prefix="$findings/$t-" -timeout=25 -rss_limit_mb=2048)
  if [ "$mode" = replay ]; then
    local files=("$seeds"/*)
    replayed=${#files[@]}
    TMPDIR="$tmp" "$bin" "${common[@]}" "${files[@]}" >>"$log" 2>&1 || status=failed
  fi
  if [ "$status" = ok ]; then
    TMPDIR="$tmp" "$bin" "${common[@]}" -max_total_time="$seconds" -max_len="$maxlen" \
      -dict="$fuzzdir/dict/$dict.dict" -print_final_stats=1 "$work" "$seeds" >>"$log" 2>&1 || status=failed
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  fi
  if grep -qE "ERROR: (Address|Leak|UndefinedBehavior)Sanitizer|runtime error:|==FUZZ FINDING==" "$log"; then
    status=failed
  fi
  rm -rf "$tmp"
  local new=$(($(count_findings "$t") - before))
  [ "$status" = failed ] && [ "$new" -eq 0 ] && new=1  # a report without a kept input still counts
  printf "%-18s %8s %12s %8s %6s\n" "$t" "$replayed" "${execs:-0}" \
    "$(awk -v a="$t0" -v b="$(date +%s.%N)" 'BEGIN {printf "%.1f", b - a}')" "$new" >"$build/fuzz-results/$t"
}

rm -f "$build"/fuzz-results/*
jobs_max=${FUZZ_JOBS:-2}
while read -r t maxlen dict; do
  [ -n "$t" ] || continue
  echo " $targets " | tr '\n' ' ' | grep -q " $t " || continue
  while [ "$(jobs -rp | wc -l)" -ge "$jobs_max" ]; do wait -n || true; done
  run_target "$t" "$maxlen" "$dict" &
done <<<"$TABLE"
wait

printf "%-18s %8s %12s %8s %6s\n" target replayed executions seconds crashes
failed=0
for t in $targets; do
  line=$(cat "$build/fuzz-results/$t" 2>/dev/null || echo "$t (no result)")
  echo "$line"
  new=$(echo "$line" | awk '{print $5}')
  if [ "$new" != 0 ]; then
    failed=1
    echo "--- $t: see $build/fuzz-logs/$t.log; inputs kept in $findings" >&2
    grep -m1 -A25 -E "ERROR: |runtime error:|==FUZZ FINDING==" "$build/fuzz-logs/$t.log" >&2 || true
  fi
done
echo "fuzz: $mode finished in $(($(date +%s) - started)) s"
exit "$failed"
