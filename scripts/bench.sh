#!/usr/bin/env bash
# Runs the archive, transfer and print benchmarks and prints one table: one line per figure, its
# median over BENCH_RUNS runs (default 5) with min and max, the ratio it is judged by, the aim
# beside it and whether it is met. Run it on an otherwise idle machine; the load average before
# and after is printed with the table.
#   BENCH_MIB=256 bash scripts/bench.sh     shorter transfers and print jobs (default 1024 MiB)
#   BENCH_MB=100 BENCH_BIG_MB=30 ...        a smaller archive tree (kept in $TMPDIR/varoft-bench)
# scripts/bench-listing.sh (listing a directory) is run on its own.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh >/dev/null
cmake -S . -B build -G Ninja -DVAROFT_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "${JOBS:-1}" --target archive_bench transfer_bench print_bench varoft loopback-desktop >/dev/null
runs=${BENCH_RUNS:-5}
mib=${BENCH_MIB:-1024}
load() { cut -d' ' -f1-3 /proc/loadavg; }
{
  echo "note|$(nproc) cores; load average before: $(load); TMPDIR=${TMPDIR:-/var/tmp (unset)}"
  BENCH_ROWS=1 BENCH_RUNS=$runs bash scripts/bench-archive.sh
  BENCH_ROWS=1 bash scripts/bench-transfer.sh "$mib" "$runs"
  BENCH_ROWS=1 bash scripts/bench-print.sh "$mib" "$runs"
  echo "note|load average after: $(load)"
} | python3 bench/table.py
