#!/usr/bin/env bash
# End-to-end tests of the lyn command-line tool against NumPy references.
# Usage: test_tool.sh PATH/TO/lyn
set -uo pipefail  # no -e: a failing command is a test result, not the end of the run

LYN=$(realpath "${1:?usage: test_tool.sh PATH/TO/lyn}")
REF=$(realpath "$(dirname "$0")/tool_reference.py")
PY=/usr/bin/python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1

# shellcheck source=tests/tap.sh
. "$(dirname "$REF")/tap.sh"

# The NumPy side (inputs, reference results, comparisons) is tests/tool_reference.py.
"$PY" "$REF" gen || { echo "not ok - generating the inputs"; echo "0 passed, 1 failed"; exit 1; }

# --- info -----------------------------------------------------------------------------------
"$LYN" info >out 2>err && grep -q "^plug-in:" out
report "info exits 0 and reports the plug-in" $?
LYN_NO_PLUGIN=1 "$LYN" info >out 2>err && grep -q "^plug-in: disabled" out
report "info with LYN_NO_PLUGIN=1 reports the plug-in disabled" $?

# --- extrema: every type and dimensionality, default and --generic give the same JSON ---------
for dt in u1 i2 f4 f8; do
  for case in "2d -" "3d -" "3d plan" "2d plan" "4d plan,axis3" "4d axis4" "3dx plan" \
    "2db -" "3db plan" "2dv2 -" "2dl -" "3dl plan"; do
    sampled || continue
    read -r dims per <<<"$case"
    [ "$per" = - ] && per=""
    args=(extrema "${dt}_$dims.npy" --json ${per:+--per "$per"})
    "$LYN" "${args[@]}" >plugin.json 2>err &&
      "$LYN" "${args[@]}" --generic >generic.json 2>>err &&
      cmp -s plugin.json generic.json &&
      "$PY" "$REF" extrema "${dt}_$dims.npy" "$per" plugin.json 2>>err
    report "extrema $dt $dims${per:+ --per $per} matches numpy, with and without --generic" $?
  done
done

# --- dilate/erode against the NumPy reference, plug-in and --generic bit-identical -----------
# op shape connectivity radius dims [extra options]; "-" leaves the option to its default.
while read -r op shape conn radius dims extra <&3; do
  for dt in u1 i2 f4 f8; do
    sampled || continue
    opts=(--shape "$shape")
    [ "$conn" != - ] && opts+=(--connectivity "$conn")
    [ "$radius" != - ] && opts+=(--radius "$radius")
    # shellcheck disable=SC2206  # extra options are single words
    opts+=($extra)
    c=$conn r=$radius
    [ "$c" = - ] && { [ "$shape" = square ] && c=8 || c=26; }
    [ "$r" = - ] && r=1
    rm -f a.npy b.npy
    "$LYN" "$op" "${dt}_$dims.npy" a.npy "${opts[@]}" 2>err &&
      "$LYN" "$op" "${dt}_$dims.npy" b.npy "${opts[@]}" --generic 2>>err &&
      "$PY" "$REF" morph "${dt}_$dims.npy" "$op" "$c" "$r" a.npy b.npy 2>>err
    report "$op $dt $dims ${opts[*]} matches numpy, with and without --generic" $?
  done
done 3<<'EOF'
dilate square - 2 2d
erode  square 8 2 2d
dilate square 4 2 2d
erode  square 4 3 2d
dilate cube   - 1 3d
erode  cube  26 1 3d
dilate cube   6 2 3d
erode  cube  18 2 3d
dilate cube   - - 4d
erode  cube  26 2 3d --threads 1
dilate square - 2 2dx
erode  square 4 1 2dx
dilate cube   - 1 3dx
erode  cube   6 1 3dx
dilate square - 1 2db
erode  cube  26 1 3db
dilate square 8 3 2dl
erode  cube  18 3 3dl
dilate square 4 2 3d
erode  cube   6 2 2d
dilate cube  26 1 2dx
EOF

# --- disk, ball, line, disk3d, line3d against references built from their definitions ---------
# Every shape, fast and exact, radii 0 to 12, many angles, six types (floats with NaN and both signed
# zeros), dilation and erosion, 2D shapes on volumes and 3D shapes on 2D images and one-plan volumes.
rm -f se_*.manifest
n=0
while read -r shape inp op json cli <&3; do
  n=$((n + 1))
  sampled || continue
  # shellcheck disable=SC2086  # the options are single words
  if "$LYN" "$op" "$inp" "se_$n.npy" --shape "$shape" $cli --quiet 2>err; then
    echo "$inp $op $shape se_$n.npy $json" >>"se_$shape.manifest"
  else
    report "$op $inp --shape $shape $cli runs" 1
  fi
done 3< <("$PY" "$REF" shape-cases)
for shape in disk ball line line3d disk3d; do
  touch "se_$shape.manifest"
  "$PY" "$REF" shapes "se_$shape.manifest" 2>err
  report "--shape $shape: $(wc -l <"se_$shape.manifest") cases match the reference built from its definition" $?
done

for case in "square 2d" "cube 3d"; do
  read -r shape dims <<<"$case"
  rm -f a.npy b.npy
  "$LYN" dilate "f4_$dims.npy" a.npy --shape "$shape" --radius 0 2>err &&
    "$LYN" erode "i2_$dims.npy" b.npy --shape "$shape" --radius 0 --generic 2>>err &&
    "$PY" "$REF" same "f4_$dims.npy" a.npy 2>>err && "$PY" "$REF" same "i2_$dims.npy" b.npy 2>>err
  report "--shape $shape --radius 0 gives the input unchanged" $?
done

# --- open, close, gradient, tophat, blackhat ----------------------------------------------------
# runops INPUT SHAPE-OPTIONS...: the five operations into c_OP.npy, and with --generic into c_OP_g.npy.
runops() {
  local in=$1 op
  shift
  rm -f c_*.npy
  for op in open close gradient tophat blackhat; do
    "$LYN" "$op" "$in" "c_$op.npy" "$@" 2>>err && "$LYN" "$op" "$in" "c_${op}_g.npy" "$@" --generic 2>>err || return 1
  done
}
# Against the definitions in NumPy, on data of the usual ranges and on whole-range integers where
# the differences saturate.
while read -r shape conn radius dims inputs <&3; do
  for input in $inputs; do
    sampled || continue
    in=${input}_$dims.npy
    : >err
    runops "$in" --shape "$shape" --connectivity "$conn" --radius "$radius" &&
      "$PY" "$REF" composite "$in" "$conn" "$radius" 2>>err
    report "open/close/gradient/tophat/blackhat $in --shape $shape --connectivity $conn --radius $radius match numpy, with and without --generic" $?
  done
done 3<<'EOF2'
square 8 1 2d u1 f8 full_i1 full_u2
square 4 2 2d i2 f4 full_i4
cube 26 1 3d u1 f4 full_i1 full_i4
cube 6 2 3d i2 f8 full_u2
cube 18 1 3d f4 full_i1
EOF2

# NaN, both zeros and infinities: each operation equals its stages run as separate commands, and
# the differences follow IEEE.
for case in "full_f4_2d square" "full_f8_2d square" "full_f4_3d cube" "full_f8_3d cube"; do
  read -r input shape <<<"$case"
  : >err
  rm -f d.npy e.npy de.npy ed.npy
  "$LYN" dilate "$input.npy" d.npy --shape "$shape" 2>>err && "$LYN" erode "$input.npy" e.npy --shape "$shape" 2>>err &&
    "$LYN" dilate e.npy de.npy --shape "$shape" 2>>err && "$LYN" erode d.npy ed.npy --shape "$shape" 2>>err &&
    runops "$input.npy" --shape "$shape" && "$PY" "$REF" stages "$input.npy" 2>>err
  report "open/close/gradient/tophat/blackhat $input (NaN, zeros, infinities) equal their stages run one by one" $?
done

# Every other shape against the definitions, NaN and signed zeros included; the second stage of an
# opening or closing by an even-length line folds its negated offsets.
while read -r shape inp json cli <&3; do
  sampled || continue
  : >err
  # shellcheck disable=SC2086  # the options are single words
  runops "$inp" --shape "$shape" $cli && "$PY" "$REF" shape-composites "$inp" "$shape" "$json" 2>>err
  report "open/close/gradient/tophat/blackhat $inp --shape $shape $cli match the definitions, with and without --generic" $?
done 3<<'EOF2'
line se_i1_2d.npy {"length":4,"angle":30.0} --length=4 --angle=30.0
line se_f4_2d.npy {"length":6,"angle":-60.0} --length=6 --angle=-60.0
line se_u1_3d.npy {"length":5,"angle":45.0} --length=5 --angle=45.0
line3d se_f8_3d.npy {"length":4,"angles":[30.0,45.0]} --length=4 --angles=30.0,45.0
line3d se_i4_2d.npy {"length":3,"angles":[135.0,-60.0]} --length=3 --angles=135.0,-60.0
disk se_f8_2d.npy {"radius":3} --radius=3
disk se_i4_2d.npy {"radius":3,"exact":true} --radius=3 --exact
ball se_u2_3d.npy {"radius":2} --radius=2
ball se_f4_3d.npy {"radius":2,"exact":true} --radius=2 --exact
disk3d se_f4_3d.npy {"radius":2,"angles":[30.0,60.0]} --radius=2 --angles=30.0,60.0
EOF2

# Opening <= input <= closing, and both idempotent, for an even-length line too.
while read -r input opts <&3; do
  : >err
  # shellcheck disable=SC2206  # the options are single words
  opts=($opts)
  rm -f o.npy c.npy oo.npy cc.npy
  "$LYN" open "$input.npy" o.npy "${opts[@]}" 2>>err && "$LYN" close "$input.npy" c.npy "${opts[@]}" 2>>err &&
    "$LYN" open o.npy oo.npy "${opts[@]}" 2>>err && "$LYN" close c.npy cc.npy "${opts[@]}" 2>>err &&
    "$PY" "$REF" order "$input.npy" o.npy c.npy oo.npy cc.npy 2>>err
  report "opening <= $input <= closing, both idempotent (${opts[*]})" $?
done 3<<'EOF2'
i2_3d --shape cube --connectivity 18 --radius 2
f4_2d --shape square --connectivity 4 --radius 3
full_u2_2d --shape square --radius 2
u1_3dl --shape cube --radius 1
full_i4_2d --shape line --length 4 --angle 30
i2_3d --shape line3d --length 6 --angles 30,45
f8_2d --shape disk --radius 2
EOF2

# Radius 0: the opening and closing are the input, the differences x - x.
rm -f o.npy g.npy
: >err
"$LYN" open i2_2d.npy o.npy --shape square --radius 0 2>>err && "$PY" "$REF" same i2_2d.npy o.npy 2>>err &&
  "$LYN" gradient u1_3d.npy g.npy --shape cube --radius 0 2>>err &&
  /usr/bin/python3 -c "import numpy as n, sys; sys.exit(int(n.load('g.npy').any()))" 2>>err
report "open and gradient with --radius 0" $?

# TIFF: one page per plan; a round trip through .tif keeps type, shape and every bit.
for case in "u1 2d square" "i2 3d cube" "f4 3d cube" "f8 2d square"; do
  read -r dt dims shape <<<"$case"
  rm -f t.tif back.npy d.tif d.npy
  "$LYN" dilate "${dt}_$dims.npy" t.tif --shape "$shape" --radius 0 2>err &&
    "$LYN" erode t.tif back.npy --shape "$shape" --radius 0 2>>err &&
    "$PY" "$REF" same "${dt}_$dims.npy" back.npy 2>>err &&
    "$LYN" dilate t.tif d.tif --shape "$shape" 2>>err && "$LYN" dilate t.tif d.npy --shape "$shape" 2>>err &&
    [ "$("$LYN" extrema d.tif --json 2>>err)" = "$("$LYN" extrema d.npy --json 2>>err)" ]
  report "TIFF round trip and dilation, $dt $dims" $?
done

# A plug-in that cannot be loaded leaves the host's generic code in charge.
rm -f a.npy
LYN_PLUGIN="$work/absent.so" "$LYN" dilate u1_3d.npy a.npy --shape cube 2>err &&
  "$PY" "$REF" morph u1_3d.npy dilate 26 1 a.npy 2>>err
report "dilate with LYN_PLUGIN naming a missing file still matches numpy" $?

# --- usage errors: exit status 2, a message naming the culprit, no output --------------------
echo "not an array" >junk.npy
cp u1_2d.npy input.txt
# name | text the message must contain | arguments
while IFS='|' read -r name expect args <&3; do
  rm -f o.npy
  # shellcheck disable=SC2086  # the arguments are single words
  "$LYN" $args >out 2>err
  rc=$?
  [ $rc -eq 2 ] && grep -qF -- "$expect" err && [ ! -e o.npy ]
  status=$?
  [ $status -ne 0 ] && echo "exit status $rc" >>err
  report "usage error: $name" $status
done 3<<'EOF'
unknown shape|--shape|dilate u1_2d.npy o.npy --shape star
unknown shape with open|--shape|open u1_2d.npy o.npy --shape star
missing --shape with gradient|--shape|gradient u1_2d.npy o.npy
negative radius with tophat|--radius|tophat u1_2d.npy o.npy --shape square --radius -1
missing --length with blackhat|--length|blackhat u1_2d.npy o.npy --shape line
missing --shape|--shape|erode u1_2d.npy o.npy
disk without --radius|--radius|dilate u1_2d.npy o.npy --shape disk
line without --length|--length|dilate u1_2d.npy o.npy --shape line
line of length 0|--length|dilate u1_2d.npy o.npy --shape line --length 0
line3d without --angles|--angles|dilate u1_3d.npy o.npy --shape line3d --length 3
malformed --angles|--angles|dilate u1_3d.npy o.npy --shape disk3d --radius 2 --angles 30
non-numeric --angles|--angles|dilate u1_3d.npy o.npy --shape line3d --length 3 --angles 30,abc
three --angles|--angles|dilate u1_3d.npy o.npy --shape line3d --length 3 --angles 1,2,3
--angle on a disk|--angle|dilate u1_2d.npy o.npy --shape disk --radius 2 --angle 30
--exact on a line|--exact|dilate u1_2d.npy o.npy --shape line --length 3 --exact
absurd exact ball|--radius|dilate u1_3d.npy o.npy --shape ball --radius 100 --exact
absurd line|--length|dilate u1_2d.npy o.npy --shape line --length 2000000
negative radius|--radius|dilate u1_2d.npy o.npy --shape square --radius -1
non-numeric radius|--radius|dilate u1_2d.npy o.npy --shape square --radius abc
fractional radius|--radius|dilate u1_2d.npy o.npy --shape square --radius 1.5
connectivity 5|--connectivity|dilate u1_2d.npy o.npy --shape square --connectivity 5
connectivity 8 with cube|--connectivity|dilate u1_3d.npy o.npy --shape cube --connectivity 8
zero threads|--threads|dilate u1_2d.npy o.npy --shape square --threads 0
bad memory budget|--memory-budget|dilate u1_2d.npy o.npy --shape square --memory-budget lots
unknown --per axis|--per|extrema u1_3d.npy --per row
missing input file|missing.npy|dilate missing.npy o.npy --shape square
input that is not an array|junk.npy|dilate junk.npy o.npy --shape square
input that is not .npy|input.txt|erode input.txt o.npy --shape square
unserved dtype|c8_2d.npy|dilate c8_2d.npy o.npy --shape square
Fortran-ordered input|fortran.npy|dilate fortran.npy o.npy --shape square
one-axis input|one_axis.npy|extrema one_axis.npy
six-axis input|six_axes.npy|extrema six_axes.npy
input shorter than its shape|truncated.npy|erode truncated.npy o.npy --shape square
EOF

cp i2_2d.npy existing.npy
"$LYN" dilate u1_2d.npy existing.npy --shape square >out 2>err
rc=$?
[ $rc -eq 2 ] && grep -qF -- "--force" err && cmp -s i2_2d.npy existing.npy
report "existing output without --force: exit 2, file untouched" $?
"$LYN" dilate u1_2d.npy existing.npy --shape square --force 2>err &&
  "$PY" "$REF" morph u1_2d.npy dilate 8 1 existing.npy 2>>err
report "existing output with --force is replaced" $?

# --- demo: its outputs are the dilation and erosion it announces, and a PNG montage ----------
"$LYN" demo --size 24 --out demo >out 2>err &&
  "$PY" "$REF" morph demo/volume.npy dilate 26 2 demo/dilated.npy 2>>err &&
  "$PY" "$REF" morph demo/volume.npy erode 6 2 demo/eroded.npy 2>>err &&
  grep -q "speed-up" out && grep -q "dilate line3d" out && ! grep -q DIFFER out &&
  [ "$(head -c 8 demo/montage.png | od -An -tx1 | tr -d ' ')" = 89504e470d0a1a0a ]
report "demo tours the shapes, writes its volume, cube results and a PNG montage" $?
touch notadir
"$LYN" demo --size 24 --out notadir >out 2>err
[ $? -eq 2 ] && grep -qF -- "--out" err
report "demo --out naming a file: exit 2 naming --out" $?
"$LYN" demo --size 5000 --out demo2 >out 2>err
[ $? -eq 2 ] && grep -qF -- "--size" err && [ ! -e demo2 ]
report "demo --size 5000: exit 2 naming --size, nothing created" $?

# --- cancellation ----------------------------------------------------------------------------
# Background jobs of a non-interactive shell start with SIGINT ignored, so a signal that comes
# before lyn installs its handler is lost, not fatal: keep signalling until lyn exits.
# Six-connected: 26-connected passes are one box in the generic code and would end too soon.
"$LYN" dilate big.npy big-out.npy --shape cube --connectivity 6 --radius 50 --generic 2>err &
pid=$!
for _ in $(seq 60); do
  sleep 0.5
  kill -INT "$pid" 2>/dev/null || break
done
kill -KILL "$pid" 2>/dev/null  # never cancelled: do not wait for the whole computation
wait "$pid"
rc=$?
[ $rc -eq 130 ] && grep -q cancelled err && [ ! -e big-out.npy ]
status=$?
[ $status -ne 0 ] && echo "exit status $rc" >>err
report "SIGINT cancels a long dilation: exit 130, no output" $status
rm -f big.npy

# Every failure above must have removed its temporary file.
find . -name '*.partial-*' -o -name '.lyn-*' -o -name 'lyn-result-*' >err
[ ! -s err ]
report "no temporary files left behind" $?

summary
