#!/usr/bin/env bash
# Throughput of varoft -put and -get through the loopback desktop on a Unix socket, beside the
# limit of the same lockstep exchange between two minimal processes with no disk.
#   scripts/bench-transfer.sh [MiB] [runs]      (default: 1024 MiB, best of 3)
# The files go to $BENCH_DIR (default /tmp).
set -euo pipefail
cd "$(dirname "$0")/.."
size=${1:-1024}
runs=${2:-3}
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "${JOBS:-2}" --target transfer_bench varoft >/dev/null
exec build/bench/transfer_bench --size "$size" --runs "$runs" --dir "${BENCH_DIR:-/tmp}"
