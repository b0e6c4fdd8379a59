#!/usr/bin/env bash
# Configures and builds one flavour of the tree.
#   scripts/build.sh            -> build/        (optimised, with debug info)
#   scripts/build.sh asan       -> build-asan/   (AddressSanitizer + UndefinedBehaviorSanitizer)
#   scripts/build.sh fuzz       -> build-fuzz/   (clang, libFuzzer targets)
#   scripts/build.sh tsan       -> build-tsan/   (ThreadSanitizer; the archive tests only)
#   scripts/build.sh windows    -> build-windows/ (64-bit Windows with mingw-w64: varoft.exe in
#                                  build-windows/src/app/, the unit tests; see windows-deps.sh)
set -euo pipefail
cd "$(dirname "$0")/.."
flavour=${1:-release}
jobs=${JOBS:-$(nproc)}
targets=()
case "$flavour" in
  release) dir=build;      args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  asan)    dir=build-asan; args=(-DCMAKE_BUILD_TYPE=Debug -DVAROFT_SANITIZE=ON -DVAROFT_BENCH=OFF) ;;
  tsan)    dir=build-tsan; args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DVAROFT_BENCH=OFF
                                 -DCMAKE_CXX_FLAGS=-fsanitize=thread -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread)
           targets=(--target archive_tests) ;;
  fuzz)    dir=build-fuzz; args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
                                 -DVAROFT_FUZZ=ON -DVAROFT_TESTS=OFF -DVAROFT_BENCH=OFF) ;;
  windows) dir=build-windows
           prefix=$(bash scripts/windows-deps.sh)
           args=(-DCMAKE_BUILD_TYPE=Release -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
                 -DVAROFT_WINDOWS_PREFIX="$prefix" -DVAROFT_BENCH=OFF --no-warn-unused-cli) ;;
  *) echo "build.sh: unknown flavour $flavour" >&2; exit 2 ;;
esac
# Warnings are errors here and in CI (VAROFT_WERROR); a plain cmake build only reports them.
cmake -S . -B "$dir" -G Ninja -DVAROFT_WERROR=ON "${args[@]}" >/dev/null
cmake --build "$dir" -j "$jobs" "${targets[@]}"
if [ "$flavour" = windows ]; then
  # One file to copy: everything linked in, only DLLs every Windows system has imported.
  imports=$(x86_64-w64-mingw32-objdump -p "$dir/src/app/varoft.exe" | awk '/DLL Name:/ { print $3 }')
  if echo "$imports" | grep -viqE '^(kernel32|msvcrt|ws2_32|advapi32|shell32)\.dll$'; then
    echo "build.sh: varoft.exe imports more than system DLLs:" $imports >&2
    exit 1
  fi
fi
