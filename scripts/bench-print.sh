#!/usr/bin/env bash
# Printing throughput: a 100 MB PDF sent by varoft through the loopback desktop, beside the
# lockstep limit of the same request/reply exchange between two minimal processes.
#   scripts/bench-print.sh [megabytes] [rounds]     (each figure is the best of the rounds)
set -euo pipefail
cd "$(dirname "$0")/.."
megabytes=${1:-100}
rounds=${2:-5}
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "${JOBS:-2}" --target print_bench >/dev/null
echo "== printing ${megabytes} MB"
./build/bench/print_bench "$megabytes" "$rounds"
