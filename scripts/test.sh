#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite: once optimised, once under
# AddressSanitizer + UndefinedBehaviorSanitizer, the archive tests under ThreadSanitizer, and a
# short fuzzing run.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

jobs=${JOBS:-$(nproc)}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

echo "== build (optimised)"
bash scripts/build.sh release
echo "== tests (optimised)"
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== build (sanitizers)"
bash scripts/build.sh asan
echo "== tests (sanitizers)"
# The multi-gigabyte transfers (label "slow") prove sizes, not memory safety: they run once, above.
ctest --test-dir build-asan --output-on-failure -j "$jobs" -LE slow

echo "== archive tests (thread sanitizer)"
bash scripts/build.sh tsan
TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1} build-tsan/tests/archive/archive_tests --gtest_brief=1

if [ -f tests/fuzz/CMakeLists.txt ]; then
  echo "== fuzzing (short run)"
  bash scripts/build.sh fuzz
  bash scripts/fuzz.sh 60   # a minute for each target
fi
