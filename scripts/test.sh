#!/usr/bin/env bash
# Runs every test: a Release build, a short fuzzing of the file readers, then the same tests
# under AddressSanitizer and UndefinedBehaviorSanitizer, and under ThreadSanitizer.
#   LYN_TEST_SKIP_ASAN=1  skip the ASan+UBSan stage
#   LYN_TEST_TSAN=1       add the ThreadSanitizer stage (opt-in: about 11 min of build and 22 min
#                         of tests on 2 cores, which would double the run)
#   LYN_TEST_FUZZ=1       add the fuzzing of the readers (likewise)
#   LYN_TEST_FUZZ_SECONDS how long each reader is fuzzed (default 60)
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

if [ "${LYN_TEST_FUZZ:-0}" = 1 ]; then
  banner "fuzz: the .npy and TIFF readers, ${LYN_TEST_FUZZ_SECONDS:-60} s each (clang, ASan+UBSan)"
  LYN="$root/build/bin/lyn" bash fuzz/run.sh "${LYN_TEST_FUZZ_SECONDS:-60}"
else
  banner "fuzz: skipped (LYN_TEST_FUZZ=1 adds it)"
fi

if [ "${LYN_TEST_SKIP_ASAN:-0}" != 1 ]; then
  export ASAN_OPTIONS="detect_leaks=1:check_initialization_order=1:detect_stack_use_after_return=1:handle_sigill=1"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  # Every fifth case of the tool's large tables: each instrumented lyn run costs a fifth of a second
  # before it starts, and the Release stage has already run every case. Five is prime to the
  # tables' sizes (four types, twelve cases), so every type still takes its turn. handle_sigill:
  # the plug-in's undefined-behaviour checks trap (CMakeLists.txt says why), and ASan reports the
  # trap with its stack.
  export LYN_TEST_STRIDE=5
  stage "ASan+UBSan" build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DLYN_SANITIZE=address;undefined" \
    -DLYN_BUILD_BENCH=OFF
  unset ASAN_OPTIONS UBSAN_OPTIONS LYN_TEST_STRIDE
else
  banner "ASan+UBSan: skipped (LYN_TEST_SKIP_ASAN=1)"
fi

# Debian's libtbb is not instrumented, so TSan would not see TBB's hand-offs between threads and
# would report races inside TBB's scheduling: this stage links a oneTBB built from Debian's source
# package with -fsanitize=thread (built once into build-tsan/, then cached). No suppressions.
if [ "${LYN_TEST_TSAN:-0}" = 1 ]; then
  banner "TSan: oneTBB with -fsanitize=thread"
  tbb_dir=$(bash scripts/tsan-tbb.sh "$root/build-tsan/tbb-tsan")
  export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
  stage "TSan" build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLYN_SANITIZE=thread -DLYN_BUILD_BENCH=OFF \
    "-DTBB_DIR=$tbb_dir"
  unset TSAN_OPTIONS
else
  banner "TSan: skipped (LYN_TEST_TSAN=1 adds it)"
fi

banner "all tests passed"
