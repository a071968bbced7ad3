#!/usr/bin/env bash
# Builds lyn_bench in build/ and runs it: three repetitions, aggregates only, console and JSON.
# Extra arguments go to the program, e.g. --benchmark_filter='morph3d/uint8'.
# LYN_BENCH_JSON overrides the JSON path; LYN_BUILD_JOBS the build parallelism (default 2: shared machine).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build
# The bench option may be cached off (the sanitiser stages turn it off); the target needs it on.
if [ -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -DLYN_BUILD_BENCH=ON >/dev/null
else
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLYN_BUILD_BENCH=ON >/dev/null
fi
cmake --build "$build" --target lyn_bench -j"${LYN_BUILD_JOBS:-2}"
json=${LYN_BENCH_JSON:-$build/bench/lyn_bench.json}
mkdir -p "$(dirname "$json")"
echo "load before: $(uptime)"
"$build/bin/lyn_bench" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  --benchmark_out="$json" --benchmark_out_format=json "$@"
echo "load after: $(uptime)"
echo "JSON: $json"
