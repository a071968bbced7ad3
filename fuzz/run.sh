#!/usr/bin/env bash
# Builds the reader fuzz targets with clang (ASan+UBSan, in build-fuzz/), seeds them with the
# files the tool's tests write, and runs each for SECONDS (default 60), both at once.
#   bash fuzz/run.sh [SECONDS]
# The TIFF seeds are written by a built lyn: $LYN, else build/bin/lyn (the Release stage's).
# Corpora are kept in build-fuzz/corpus-{npy,tiff}; crashes land in build-fuzz/crash-{npy,tiff}/.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
secs=${1:-60}
out=$root/build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$out" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLYN_FUZZ=ON \
  "-DLYN_SANITIZE=address;undefined" -DLYN_BUILD_TESTS=OFF -DLYN_BUILD_BENCH=OFF \
  $(command -v ccache >/dev/null && echo -DCMAKE_CXX_COMPILER_LAUNCHER=ccache) >/dev/null
cmake --build "$out" -j2 --target fuzz_npy fuzz_tiff
lyn=${LYN:-$root/build/bin/lyn}
[ -x "$lyn" ] || { echo "fuzz: no lyn at $lyn to write the TIFF seeds (build it or set LYN)" >&2; exit 1; }
for r in npy tiff; do mkdir -p "$out/corpus-$r" "$out/seed-$r" "$out/crash-$r"; done
if [ ! -f "$out/seed-npy/.done" ]; then
  # The tool tests' inputs, and TIFF copies of them written by the tool itself.
  (cd "$out/seed-npy" && /usr/bin/python3 "$root/tests/tool_reference.py" gen && rm -f big.npy ./*l.npy)
  for f in "$out"/seed-npy/*_2d.npy "$out"/seed-npy/*_3d.npy "$out"/seed-npy/*_4d.npy; do
    b=$(basename "$f" .npy)
    shape=square
    case $b in *3d|*4d) shape=cube ;; esac
    "$lyn" dilate "$f" "$out/seed-tiff/$b.tif" --shape "$shape" --radius 0 --force 2>/dev/null || true
  done
  touch "$out/seed-npy/.done"
fi
export ASAN_OPTIONS="detect_leaks=1:allocator_may_return_null=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
pids=()
for r in npy tiff; do
  (cd "$out/crash-$r" && "$out/bin/fuzz_$r" -max_total_time="$secs" -rss_limit_mb=2048 -malloc_limit_mb=1024 \
     -timeout=60 -print_final_stats=1 -artifact_prefix="$out/crash-$r/" \
     "$out/corpus-$r" "$out/seed-$r" >"$out/fuzz-$r.log" 2>&1) &
  pids+=($!)
done
status=0
for i in 0 1; do wait "${pids[$i]}" || status=1; done
for r in npy tiff; do
  echo "fuzz_$r: $(grep -E '^stat::number_of_executed_units' "$out/fuzz-$r.log" | awk '{print $2}') executions in ${secs}s" \
    "$(grep -cE '^==[0-9]+==ERROR|^SUMMARY' "$out/fuzz-$r.log" || true) errors"
done
[ $status -eq 0 ] || { echo "fuzz: a target failed; see $out/fuzz-*.log and $out/crash-*/" >&2; exit 1; }
