#!/usr/bin/env bash
# Throughput of varoft -put and -get through the loopback desktop on a Unix socket, beside the
# limit of the same lockstep exchange between two minimal processes with no disk.
#   scripts/bench-transfer.sh [MiB] [runs]      (default: 1024 MiB, best of 3)
# and, with the archive benchmark's tree, -putd / -getd beside the pack / unpack streams alone.
# The files go to $BENCH_DIR (default /tmp).
set -euo pipefail
cd "$(dirname "$0")/.."
size=${1:-1024}
runs=${2:-3}
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "${JOBS:-2}" --target transfer_bench varoft >/dev/null
# The -putd / -getd rows use the tree that scripts/bench-archive.sh generates, when it is there.
tree=${BENCH_TREE:-/tmp/varoft-bench/tree}
extra=()
if [ -f "$(dirname "$tree")/tree.complete" ]; then extra=(--tree "$tree")
else echo "(no $tree: run scripts/bench-archive.sh first for the -putd / -getd rows)"; fi
exec build/bench/transfer_bench --size "$size" --runs "$runs" --dir "${BENCH_DIR:-/tmp}" "${extra[@]}"
