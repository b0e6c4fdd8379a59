#!/usr/bin/env bash
# Listing a directory of mixed files through varoft and the loopback desktop (every file
# classified), beside `file -b` over the same files and `ls -l` of the directory.
#   scripts/bench-listing.sh [files] [runs]      (default: 10000 files, best of 3)
# The directory is made under $BENCH_DIR (default /tmp) and removed afterwards.
set -euo pipefail
cd "$(dirname "$0")/.."
files=${1:-10000}
runs=${2:-3}
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "${JOBS:-2}" --target listing_bench varoft >/dev/null
exec build/bench/listing_bench --files "$files" --runs "$runs" --dir "${BENCH_DIR:-/tmp}"
