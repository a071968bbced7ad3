#!/usr/bin/env bash
# Installs the build under a temporary prefix, then builds and runs examples/cpp against it with
# find_package(lyn), runs the installed tool, and imports the installed Python package.
# Usage: test_install.sh BUILD_DIR SOURCE_DIR PYTHON_PACKAGE_DIR(relative to the prefix, or "-")
set -euo pipefail
build=$(realpath "$1")
src=$(realpath "$2")
pydir=$3
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix/usr" >/dev/null
test -x "$prefix/usr/bin/lyn"
test -f "$prefix/usr/lib/liblyn_avx2.so"
test -f "$prefix/usr/include/lyn/host/Algorithms.h"
test -f "$prefix/usr/lib/cmake/lyn/lynConfig.cmake"

# The installed tool finds the installed plug-in, not the build tree's.
loaded=$("$prefix/usr/bin/lyn" info | sed -n 's/^plug-in: loaded from //p')
[ "$(realpath "$loaded")" = "$prefix/usr/lib/liblyn_avx2.so" ] || { echo "plug-in loaded from '$loaded'"; exit 1; }

cmake -S "$src/examples/cpp" -B "$prefix/example" -G Ninja -DCMAKE_PREFIX_PATH="$prefix/usr" >/dev/null
cmake --build "$prefix/example" >/dev/null
"$prefix/example/dilate_volume"

if [ "$pydir" != - ]; then
  PYTHONPATH="$prefix/usr/$pydir" /usr/bin/python3 -c "
import os, numpy as np, lyn
assert lyn.__file__.startswith('$prefix'), lyn.__file__
assert os.path.realpath(lyn.info()['plugin']['path']) == '$prefix/usr/lib/liblyn_avx2.so', lyn.info()['plugin']
v = np.zeros((5, 6, 7), np.uint8); v[2, 3, 3] = 9
assert int(lyn.dilate(v, 'cube').sum()) == 27 * 9
print('installed Python package: ok')
"
fi
echo "install: ok"
