#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite: once optimised, once under
# AddressSanitizer + UndefinedBehaviorSanitizer, the archive tests under ThreadSanitizer, a short
# fuzzing run, and then the Windows build under Wine (VAROFT_WINDOWS=0 leaves that leg out).
#   scripts/test.sh windows   the Windows leg alone (after the optimised build its end-to-end runs use)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

jobs=${JOBS:-$(nproc)}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

linux_legs() {
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
}

windows_leg() {
  echo "== build (Windows, mingw-w64)"
  bash scripts/build.sh windows

  echo "== tests (Windows, under Wine)"
  # A headless Wine whose server runs for the whole leg with its streams on /dev/null (one that
  # ctest started would hold its output pipe); stopped again at the end.
  source scripts/wine-env.sh
  wine_env_start
  trap wine_env_stop EXIT
  ctest --test-dir build-windows --output-on-failure -j "$jobs" --timeout 300 --no-tests=error
  # The end-to-end runs of the Linux build with varoft.exe as the program under test, over TCP.
  # Left out are the runs that check what differs by design on Windows (the banner's program
  # name varoft.exe, the drive report and the profile's paths, the system's error texts, print
  # names cut at backslashes only, the log's place) or what Wine cannot show (symbolic links,
  # SIGHUP, file size limits, Ctrl-C seen as a signal); the Windows side of those has its own
  # cases in platform_win32_tests.
  VAROFT_TEST_PROGRAM=$PWD/build-windows/src/app/varoft.exe VAROFT_TEST_LAUNCHER=$WINELOADER \
    VAROFT_TEST_DISPLAY_HOST=127.0.0.1 \
    ctest --test-dir build --output-on-failure -j "$jobs" --timeout 300 --no-tests=error -R \
    '^(Driver\.VersionGoesToStandardOutputAlone|EndToEnd\.(EachSendingModeMovesItsFileOrTree|ExtensionReportedAbsent|GetReplacesTheTargetOnlyOnceTheFileArrivedWhole|GetDirectoryReplacesTheTargetOnlyOnceTheTreeArrivedWhole))'
}

echo "== build (optimised)"
bash scripts/build.sh release
if [ "${1:-}" = windows ]; then
  windows_leg
  exit 0
fi
linux_legs
if [ "${VAROFT_WINDOWS:-1}" != 0 ]; then
  windows_leg
fi
