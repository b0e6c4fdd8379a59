#!/usr/bin/env bash
# Throughput of varoft -put and -get against a minimal X server that only answers and through
# the loopback-desktop program, beside the limit of the same lockstep exchange between two
# minimal processes with no disk, and for -get beside the disk's write speed alone.
#   scripts/bench-transfer.sh [MiB] [runs]      (default: 1024 MiB, 5 runs; medians, min and max)
# The files go under $TMPDIR (/var/tmp when unset). With BENCH_DIRS=1, -putd / -getd of the
# archive benchmark's tree ($BENCH_DIR/tree, as scripts/bench-archive.sh leaves it) are measured
# beside the pack and unpack streams alone. With BENCH_ROWS=1 the rows are printed raw, for
# scripts/bench.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
size=${1:-1024}
runs=${2:-5}
dir=${TMPDIR:-/var/tmp}
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "${JOBS:-1}" --target transfer_bench varoft loopback-desktop >/dev/null
extra=()
if [ "${BENCH_DIRS:-0}" = 1 ]; then
  tree=${BENCH_DIR:-$dir/varoft-bench}/tree
  if [ -f "$(dirname "$tree")/tree.complete" ]; then extra=(--tree "$tree")
  else echo "note|no $tree: run scripts/bench-archive.sh first for the -putd / -getd rows"; fi
fi
if [ "${BENCH_ROWS:-0}" = 1 ]; then
  exec build/bench/transfer_bench --size "$size" --runs "$runs" --dir "$dir" "${extra[@]}"
fi
build/bench/transfer_bench --size "$size" --runs "$runs" --dir "$dir" "${extra[@]}" | python3 bench/table.py
