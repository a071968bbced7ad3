#!/usr/bin/env bash
# Runs every test: a Release build, then the same tests under AddressSanitizer and
# UndefinedBehaviorSanitizer.
#   LYN_TEST_SKIP_ASAN=1  skip the sanitizer stage (quick local runs)
#   LYN_TEST_TSAN=1       add a ThreadSanitizer stage
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

banner() {
  printf '\n==== %s ====\n' "$*"
}

# stage NAME DIR [cmake options...]: configure, build and run ctest in DIR.
stage() {
  local name=$1 dir=$2
  shift 2
  banner "$name: configure ($dir)"
  cmake -S . -B "$dir" -G Ninja "$@"
  banner "$name: build"
  cmake --build "$dir" -j2
  banner "$name: test"
  ctest --test-dir "$dir" --output-on-failure
}

banner "setup: packages"
bash scripts/setup.sh

stage "Release" build -DCMAKE_BUILD_TYPE=Release

if [ "${LYN_TEST_SKIP_ASAN:-0}" != 1 ]; then
  # Leak detection stays on; tests/lsan.supp only excuses the runners that the plug-in keeps by
  # design. Its match is on a frame below the dlclose'd plug-in, which only complete stacks reach,
  # hence fast_unwind_on_malloc=0.
  export ASAN_OPTIONS="detect_leaks=1:check_initialization_order=1:detect_stack_use_after_return=1:fast_unwind_on_malloc=0"
  export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  stage "ASan+UBSan" build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DLYN_SANITIZE=address;undefined" \
    -DLYN_BUILD_BENCH=OFF
  unset ASAN_OPTIONS LSAN_OPTIONS UBSAN_OPTIONS
else
  banner "ASan+UBSan: skipped (LYN_TEST_SKIP_ASAN=1)"
fi

# Opt-in: Debian's libtbb is not built with TSan, so TBB's own hand-offs between threads are
# invisible to it and it reports races inside TBB's scheduling (range splitting, task objects).
if [ "${LYN_TEST_TSAN:-0}" = 1 ]; then
  export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
  stage "TSan" build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLYN_SANITIZE=thread -DLYN_BUILD_BENCH=OFF
  unset TSAN_OPTIONS
fi

banner "all tests passed"
