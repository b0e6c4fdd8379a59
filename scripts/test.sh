#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite: once optimised, once under
# AddressSanitizer + UndefinedBehaviorSanitizer, and a short fuzzing run.
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
ctest --test-dir build-asan --output-on-failure -j "$jobs"

if [ -f tests/fuzz/CMakeLists.txt ]; then
  echo "== fuzzing (short run)"
  bash scripts/build.sh fuzz
  bash scripts/fuzz.sh 60   # a minute for each target
fi
