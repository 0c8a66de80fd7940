#!/bin/bash
# Benchmarks of the main jobs on the generated big host and on the shapes host, each also at twice
# its size, each job beside its floor. Usage: bench/run.sh BUILD_DIR. Writes the table to standard output and BUILD_DIR/bench-table.md.
set -euo pipefail
build=${1:?usage: bench/run.sh BUILD_DIR}
src="$(cd "$(dirname "$0")/.." && pwd)"
jobs=${JOBS:-2}
seed=${BENCH_SEED:-1}

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCONFIGSTORE_BENCH=ON -DCONFIGSTORE_TESTS=OFF \
  "${launcher[@]}" >/dev/null
cmake --build "$build" --target configstore_bench configstore_bench_gen configstore_bench_patterns -j "$jobs" >/dev/null
build="$(cd "$build" && pwd)"

for scale in 1 2; do
  echo "generating the ${scale}x hosts under $build/bench-host-${scale}x and $build/bench-host-shapes-${scale}x" >&2
  "$build/bench/configstore_bench_gen" "$build/bench-host-${scale}x" "$scale" "$seed"
  "$build/bench/configstore_bench_gen" --shapes "$build/bench-host-shapes-${scale}x" "$scale" "$seed"
done

"$build/bench/configstore_bench" --host="1x:$build/bench-host-1x" --host="2x:$build/bench-host-2x" \
  --host="shapes-1x:$build/bench-host-shapes-1x" --host="shapes-2x:$build/bench-host-shapes-2x" \
  --table="$build/bench-table.md" >&2
{
  echo
  echo "Schema pattern engines (compile once per distinct pattern, match once per value):"
  echo
  echo '```'
  "$build/bench/configstore_bench_patterns" --benchmark_min_time=0.2 2>/dev/null | grep -E '^(Re2|StdRegex)'
  echo '```'
} >>"$build/bench-table.md"
cat "$build/bench-table.md"
