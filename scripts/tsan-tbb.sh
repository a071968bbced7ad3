#!/usr/bin/env bash
# Builds oneTBB from Debian's source package with -fsanitize=thread into DIR (default
# build-tsan/tbb-tsan) and prints the directory of its CMake package. Debian's libtbb is not
# instrumented, so ThreadSanitizer cannot see TBB's hand-offs between threads without this.
# Cached: a second run only prints the path.
set -euo pipefail
cd "$(dirname "$0")/.."
prefix=$(realpath -m "${1:-build-tsan/tbb-tsan}")
work=$(dirname "$prefix")/tbb-tsan-src
if [ -f "$prefix/.done" ]; then
  echo "$prefix/lib/cmake/TBB"
  exit 0
fi
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
# Source packages come from the same mirrors as the binaries: a deb-src twin of each deb entry.
src=/etc/apt/sources.list.d/lyn-deb-src.sources
if ! grep -rqs '^Types:.*deb-src\|^deb-src' /etc/apt/sources.list /etc/apt/sources.list.d/; then
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    sed -n '/^Types:/s/\bdeb\b/deb-src/p;/^Types:/!p' "$f"
  done | grep -v '^#' | $SUDO tee "$src" >/dev/null
  $SUDO apt-get update -qq >&2
fi
command -v dpkg-source >/dev/null || $SUDO apt-get install -y -qq --no-install-recommends dpkg-dev >&2
rm -rf "$work"
mkdir -p "$work"
(cd "$work" && apt-get source -qq onetbb >&2)
srcdir=$(find "$work" -mindepth 1 -maxdepth 1 -type d -name 'onetbb-*' | head -1)
[ -n "$srcdir" ] || { echo "tsan-tbb: apt-get source onetbb gave no source tree" >&2; exit 1; }
cmake -S "$srcdir" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTBB_SANITIZE=thread \
  -DTBB_TEST=OFF -DTBB_EXAMPLES=OFF -DTBB_STRICT=OFF -DCMAKE_INSTALL_PREFIX="$prefix" \
  -DCMAKE_INSTALL_LIBDIR=lib >&2
cmake --build "$work/build" -j2 >&2
cmake --install "$work/build" >&2
rm -rf "$work"
touch "$prefix/.done"
echo "$prefix/lib/cmake/TBB"
