#!/usr/bin/env bash
# Installs the Debian packages lyn needs to build, test and benchmark. Idempotent: quiet when all is there.
# --peers also installs the peer libraries that bench/peers.py times lyn against (OpenCV: about 300
# packages and 570 MiB, which the build and the tests do not need).
set -euo pipefail
pkgs=(g++ cmake ninja-build pkg-config libtbb-dev libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev libtiff-dev libpng-dev python3-numpy
  python3-dev pybind11-dev python3-pytest python3-dask python3-distributed python3-scipy
  clang libclang-rt-14-dev dpkg-dev)
for arg in "$@"; do
  case $arg in
    --peers) pkgs+=(python3-opencv) ;;
    *) echo "setup: unknown option '$arg' (use --peers)" >&2; exit 2 ;;
  esac
done
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "setup: installing ${missing[*]}" >&2
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
