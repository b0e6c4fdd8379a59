#!/usr/bin/env bash
# Printing throughput: a PDF sent by varoft -print against a minimal X server that only answers
# and through the loopback-desktop program, beside the lockstep limit of the same request/reply
# exchange between two minimal processes.
#   scripts/bench-print.sh [MiB] [runs]     (default: 1024 MiB, 5 runs; medians, min and max)
# The file goes under $TMPDIR (/var/tmp when unset). With BENCH_ROWS=1 the rows are printed raw,
# for scripts/bench.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
size=${1:-1024}
runs=${2:-5}
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "${JOBS:-1}" --target print_bench >/dev/null
if [ "${BENCH_ROWS:-0}" = 1 ]; then exec ./build/bench/print_bench "$size" "$runs"; fi
./build/bench/print_bench "$size" "$runs" | python3 bench/table.py
