#!/usr/bin/env bash
# Benchmarks the archive streams beside their peers, in one run, and prints a table:
#   pack:   DirPackStream (archive_bench pack), zip -r -6 -q, bsdtar --format zip (deflate level 6)
#   unpack: DirUnpackStream (archive_bench unpack), unzip -q, bsdtar -xf, all of zip's archive
# MB/s counts the tree's uncompressed bytes (1 MB = 10^6 bytes); the ratio is against the
# faster peer (above 1 is faster); peak RSS comes from /usr/bin/time (%M). The CPU columns (user +
# system seconds) compare the work done, which holds up better than wall time when the cores are
# shared.
# The generated tree (a few thousand mixed files, ~300 MB, plus one 100 MB file) is kept in
# $BENCH_DIR (default /tmp/varoft-bench) for later runs; delete it to regenerate. BENCH_MB and
# BENCH_BIG_MB scale the generated tree (for a quick check of the script itself).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
bench_dir=${BENCH_DIR:-/tmp/varoft-bench}
tree=$bench_dir/tree
bin=$root/build/bench/archive_bench

cmake -S . -B build -G Ninja >/dev/null
cmake --build build --target archive_bench >/dev/null
for tool in zip unzip bsdtar python3 /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "bench-archive: $tool is missing (scripts/install-deps.sh)" >&2; exit 1; }
done

mkdir -p "$bench_dir"
if [ ! -f "$bench_dir/tree.complete" ]; then
  echo "generating $tree ..." >&2
  rm -rf "$tree"
  python3 - "$tree" "${BENCH_MB:-300}" "${BENCH_BIG_MB:-100}" <<'PY'
import os, random, sys
root = sys.argv[1]
rng = random.Random(42)
words = [''.join(rng.choice('abcdefghijklmnopqrstuvwxyz') for _ in range(rng.randint(2, 10))) for _ in range(5000)]
pool = []
size = 0
while size < 8 << 20:
    line = ' '.join(rng.choice(words) for _ in range(rng.randint(4, 16))) + '\n'
    pool.append(line)
    size += len(line)
pool = ''.join(pool).encode()

def text(n):
    at = rng.randrange(0, len(pool) - n) if n < len(pool) else 0
    return (pool[at:at + n] * (n // len(pool) + 1))[:n]

def records(n):
    out = bytearray()
    i = 0
    while len(out) < n:
        out += i.to_bytes(4, 'little') + rng.randbytes(4) + b'\x00' * 8 + b'record-%06d' % (i % 1000)
        i += 1
    return bytes(out[:n])

total = 0
files = 0
dirs = [os.path.join(root, 'd%02d' % a, 'e%02d' % b) for a in range(12) for b in range(6)]
for d in dirs:
    os.makedirs(d)
while total < int(sys.argv[2]) * 10**6:
    n = max(1, min(int(rng.expovariate(1 / 100000)), 3 << 20))
    kind = rng.random()
    data = text(n) if kind < 0.5 else os.urandom(n) if kind < 0.8 else records(n)
    path = os.path.join(rng.choice(dirs), 'f%05d.%s' % (files, 'txt' if kind < 0.5 else 'bin' if kind < 0.8 else 'dat'))
    with open(path, 'wb') as f:
        f.write(data)
    total += n
    files += 1
with open(os.path.join(root, 'big.bin'), 'wb') as f:
    for i in range(int(sys.argv[3])):
        f.write(text(1 << 20) if i % 2 == 0 else os.urandom(1 << 20))
print('%d files, %d bytes + %s MiB' % (files, total, sys.argv[3]), file=sys.stderr)
PY
  touch "$bench_dir/tree.complete"
fi

tree_bytes=$(find "$tree" -type f -printf '%s\n' | awk '{s += $1} END {print s}')
tree_files=$(find "$tree" -type f | wc -l)
out=$bench_dir/out
rm -rf "$out" && mkdir -p "$out"
results=$out/results.txt
: > "$results"

# measure <operation> <tool> <command...>: runs it once from $bench_dir, records time and RSS.
measure() {
  local op=$1 tool=$2
  shift 2
  sync
  if ! (cd "$bench_dir" && /usr/bin/time -f '%e %U %S %M' -o "$out/time.txt" "$@" >/dev/null 2>"$out/stderr.txt"); then
    echo "bench-archive: $op $tool failed:" >&2
    cat "$out/stderr.txt" >&2
    exit 1
  fi
  read -r seconds user system rss_kb < <(tail -n 1 "$out/time.txt")
  echo "$op $tool $seconds $user $system $rss_kb" >> "$results"
}

echo "packing ..." >&2
measure pack DirPackStream "$bin" pack tree "$out/ours.zip"
measure pack "zip -6" zip -r -6 -q "$out/zip.zip" tree
measure pack bsdtar bsdtar --format zip --options zip:compression-level=6 -cf "$out/bsdtar.zip" tree

echo "unpacking ..." >&2
for t in ours unzip bsdtar; do mkdir -p "$out/x-$t"; done
measure unpack DirUnpackStream "$bin" unpack "$out/zip.zip" "$out/x-ours"
measure unpack unzip unzip -q "$out/zip.zip" -d "$out/x-unzip"
measure unpack bsdtar bsdtar -xf "$out/zip.zip" -C "$out/x-bsdtar"

# Not timed: our archive is sound and our extraction is complete.
unzip -tq "$out/ours.zip" >/dev/null || { echo "bench-archive: unzip -t rejects our archive" >&2; exit 1; }
diff -rq "$tree" "$out/x-ours/tree" >/dev/null || { echo "bench-archive: our extraction differs" >&2; exit 1; }

sizes="ours.zip $(stat -c %s "$out/ours.zip") zip.zip $(stat -c %s "$out/zip.zip") bsdtar.zip $(stat -c %s "$out/bsdtar.zip")"
python3 - "$results" "$tree_bytes" "$tree_files" "$sizes" <<'PY'
import sys
rows = [l.split() for l in open(sys.argv[1])]
tree_bytes, files = int(sys.argv[2]), int(sys.argv[3])
parsed = []
for r in rows:
    op, tool = r[0], ' '.join(r[1:-4])
    secs, cpu, rss = float(r[-4]), float(r[-3]) + float(r[-2]), int(r[-1])
    parsed.append((op, tool, secs, cpu, rss))
print('tree: %d files, %.1f MB; archive sizes: %s' % (files, tree_bytes / 1e6, sys.argv[4]))
print('%-7s %-16s %8s %8s %8s %8s %9s %8s' % ('op', 'tool', 'seconds', 'MB/s', 'vs peer', 'CPU s', 'CPU vs', 'RSS MiB'))
for op in ('pack', 'unpack'):
    group = [p for p in parsed if p[0] == op]
    peers = [p for p in group if not p[1].startswith('Dir')]
    best_wall = min(p[2] for p in peers)
    best_cpu = min(p[3] for p in peers)
    for _, tool, secs, cpu, rss in group:
        print('%-7s %-16s %8.2f %8.1f %7.2fx %8.2f %8.2fx %8.1f' % (
            op, tool, secs, tree_bytes / 1e6 / max(secs, 0.01), best_wall / max(secs, 0.01),
            cpu, best_cpu / max(cpu, 0.01), rss / 1024))
PY
