#!/usr/bin/env bash
# Runs every benchmark in turn, each printing its own table. Run it on an otherwise idle machine:
# the figures compare varoft with the tools a user would use instead, side by side in one run.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh release >/dev/null
for b in archive transfer print listing; do
  [ -f "scripts/bench-$b.sh" ] || continue
  echo "== $b"
  bash "scripts/bench-$b.sh"
  echo
done
