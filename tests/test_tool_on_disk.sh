#!/usr/bin/env bash
# End-to-end tests of `lyn --on-disk`, --tmpdir and --memory-budget: files processed in place give
# the bytes of the in-memory runs, inputs are never touched, and failures leave nothing behind.
# Usage: test_tool_on_disk.sh PATH/TO/lyn
set -uo pipefail  # no -e: a failing command is a test result, not the end of the run

LYN=$(realpath "${1:?usage: test_tool_on_disk.sh PATH/TO/lyn}")
REF=$(realpath "$(dirname "$0")/tool_reference.py")
PY=/usr/bin/python3
work=$(mktemp -d)
mnt=""
cleanup() {
  [ -n "$mnt" ] && umount "$mnt" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
cd "$work" || exit 1
mkdir tmp

# shellcheck source=tests/tap.sh
. "$(dirname "$REF")/tap.sh"
# Nothing in the temporary directory, no partial output anywhere.
clean() { [ -z "$(ls -A tmp)" ] && [ -z "$(find . -name '*.partial-*')" ]; }

"$PY" "$REF" gen || { echo "not ok - generating the inputs"; echo "0 passed, 1 failed"; exit 1; }

# --- the same bytes as in memory, inputs untouched, NumPy opens the output mapped ---------------
# op shape connectivity radius input [extra options]
while read -r op shape conn radius input extra <&3; do
  before=$(md5sum "$input")
  rm -f mem.npy disk.npy gen.npy
  # shellcheck disable=SC2086  # extra options are single words
  "$LYN" "$op" "$input" mem.npy --shape "$shape" --connectivity "$conn" --radius "$radius" 2>err &&
    "$LYN" "$op" "$input" disk.npy --shape "$shape" --connectivity "$conn" --radius "$radius" \
      --on-disk --tmpdir tmp $extra 2>>err &&
    "$LYN" "$op" "$input" gen.npy --shape "$shape" --connectivity "$conn" --radius "$radius" \
      --on-disk --tmpdir tmp --generic $extra 2>>err &&
    cmp mem.npy disk.npy 2>>err && cmp mem.npy gen.npy 2>>err &&
    "$PY" "$REF" morph "$input" "$op" "$conn" "$radius" disk.npy 2>>err &&
    "$PY" -c "import numpy as n, sys; a = n.load(sys.argv[1], mmap_mode='r'); assert isinstance(a, n.memmap)" disk.npy 2>>err &&
    [ "$before" = "$(md5sum "$input")" ] && clean
  report "--on-disk $op $shape/$conn radius $radius $input ${extra:-} gives the in-memory bytes" $?
done 3<<'EOF'
dilate square 8 1 u1_2d.npy
erode  square 4 3 f4_2dl.npy
dilate square 8 2 i2_2db.npy
dilate cube  26 1 u1_3d.npy
erode  cube  18 2 f8_3d.npy
dilate cube   6 3 i2_3dl.npy
dilate cube  26 2 f4_3db.npy
erode  cube  26 2 u1_4d.npy
dilate cube  26 3 i2_3dl.npy --memory-budget 1K
erode  square 8 2 f4_2dl.npy --memory-budget 0
dilate cube  26 0 f8_3d.npy
EOF

# The setting that keeps passes in the output instead of a temporary file.
rm -f mem.npy disk.npy
"$LYN" erode i2_3dl.npy mem.npy --shape cube --radius 4 2>err &&
  LYN_RECURSIVITY_TMP_DISK_IMAGE=false "$LYN" erode i2_3dl.npy disk.npy --shape cube --radius 4 --on-disk 2>>err &&
  cmp mem.npy disk.npy 2>>err
report "--on-disk with LYN_RECURSIVITY_TMP_DISK_IMAGE=false gives the in-memory bytes" $?

rm -f e.json
"$LYN" extrema f4_3d.npy --json --per plan >mem.json 2>err &&
  "$LYN" extrema f4_3d.npy --json --per plan --on-disk >disk.json 2>>err && cmp mem.json disk.json 2>>err
report "extrema --on-disk prints what extrema in memory prints" $?

# --- errors: a clear message, nothing lost, nothing left ----------------------------------------
"$PY" -c "import numpy as n; import sys; n.save('t.npy', n.zeros((3, 4, 5), n.uint8))"
"$LYN" dilate t.npy t.tif --shape cube --radius 0 2>err
"$LYN" dilate t.tif o.npy --shape cube --on-disk >out 2>err
rc=$?
[ $rc -eq 2 ] && grep -q "convert" err && grep -qF ".npy" err && [ ! -e o.npy ]
report "--on-disk with a TIFF input: exit 2, says to convert to .npy" $?
"$LYN" dilate t.npy o.tif --shape cube --on-disk >out 2>err
rc=$?
[ $rc -eq 2 ] && grep -qF ".npy" err && [ ! -e o.tif ]
report "--on-disk with a TIFF output: exit 2, says to name it .npy" $?

# A volume that would not fit in memory (a sparse file: no disk space used).
"$PY" - <<'PYEOF'
import numpy as np
shape = (4096, 4096, 4096)  # 64 GiB of uint8
header = np.lib.format.header_data_from_array_1_0(np.zeros((1, 1, 1), np.uint8))
header["shape"] = shape
with open("huge.npy", "wb") as f:
    np.lib.format.write_array_header_1_0(f, header)
    f.truncate(f.tell() + int(np.prod(shape)))
PYEOF
"$LYN" dilate huge.npy o.npy --shape cube >out 2>err
rc=$?
[ $rc -eq 2 ] && grep -qF -- "--on-disk" err && [ ! -e o.npy ]
report "an input larger than the memory available: exit 2, suggests --on-disk" $?
rm -f huge.npy

# A file size limit reached while the output is reserved: exit 1, input intact, nothing left.
before=$(md5sum i2_3dl.npy)
(ulimit -f 64 && "$LYN" dilate i2_3dl.npy o.npy --shape cube --on-disk --tmpdir tmp >out 2>err)
rc=$?
[ $rc -eq 1 ] && grep -q "cannot reserve" err && [ ! -e o.npy ] && [ "$before" = "$(md5sum i2_3dl.npy)" ] && clean
report "file size limit on the output: exit 1, clear error, nothing left" $?

# A temporary directory too small for the temporary image (a small tmpfs, where we may mount one).
mkdir small
if mount -t tmpfs -o size=64k tmpfs small 2>/dev/null; then
  mnt=$work/small
  "$LYN" dilate i2_3dl.npy o.npy --shape cube --radius 2 --on-disk --tmpdir small >out 2>err
  rc=$?
  [ $rc -eq 1 ] && grep -q "temporary disk image cannot be allocated" err && [ ! -e o.npy ] &&
    [ -z "$(ls -A small)" ] && [ "$before" = "$(md5sum i2_3dl.npy)" ] && clean
  report "a full temporary directory: exit 1, the allocation error, nothing left" $?
  umount small && mnt=""
else
  echo "ok - a full temporary directory # SKIP cannot mount a tmpfs here"
fi

# Cancelled by a signal: exit 130, no output, no temporary file.
# Six-connected: 26-connected passes are one box in the generic code and would end too soon.
"$LYN" dilate big.npy big-out.npy --shape cube --connectivity 6 --radius 50 --on-disk --tmpdir tmp --generic 2>err &
pid=$!
for _ in $(seq 60); do
  sleep 0.5
  kill -INT "$pid" 2>/dev/null || break
done
kill -KILL "$pid" 2>/dev/null
wait "$pid"
rc=$?
[ $rc -eq 130 ] && [ ! -e big-out.npy ] && clean
report "SIGINT during an on-disk dilation: exit 130, nothing left" $?

summary
