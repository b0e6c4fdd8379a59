# Benchmarks the archive streams beside their peers and prints a table (bench/table.py):
#   pack:   DirPackStream (archive_bench pack; one worker per core, and again with one worker),
#           zip -r -6 -q, bsdtar --format zip (deflate level 6)
#   unpack: DirUnpackStream (archive_bench unpack), unzip -q, bsdtar -xf, all of zip's archive,
#           onto disk (under $BENCH_DIR) and into tmpfs (/dev/shm)
# Every figure is the median of BENCH_RUNS runs (default 5) with the smallest and largest beside
# it; the tools take turns in an order that is reversed every other run, so none always runs
# first, and each after a sync. MB/s counts the tree's uncompressed bytes (1 MB = 10^6 bytes);
# the ratio is taken within each run against the faster peer of that run (above 1 is faster).
# Notes give the peers' medians, the CPU time (user + system seconds, which holds up better than
# wall time when the cores are shared) and peak RSS (/usr/bin/time %M, the largest of the runs).
# With BENCH_ROWS=1 the rows are printed raw, for scripts/bench.sh to gather into one table.
# The generated tree (a few thousand mixed files, ~300 MB, plus one 100 MB file) is kept in
# $BENCH_DIR (default $TMPDIR/varoft-bench, /var/tmp when TMPDIR is unset) for later runs; delete
# it to regenerate. BENCH_MB and BENCH_BIG_MB scale the generated tree (for a quick check of the
# script itself).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
bench_dir=${BENCH_DIR:-${TMPDIR:-/var/tmp}/varoft-bench}
runs=${BENCH_RUNS:-5}
tree=$bench_dir/tree
bin=$root/build/bench/archive_bench

cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "${JOBS:-1}" --target archive_bench >/dev/null
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
  echo "$op|$tool|$seconds|$user|$system|$rss_kb" >> "$results"
}

pack_one() {
  case $1 in
    ours)   measure pack "DirPackStream" "$bin" pack tree "$out/ours.zip" ;;
    ours1)  measure pack "DirPackStream, 1 worker" env VAROFT_PACK_WORKERS=1 "$bin" pack tree "$out/ours1.zip" ;;
    zip)    rm -f "$out/zip.zip"; measure pack "zip -6" zip -r -6 -q "$out/zip.zip" tree ;;
    bsdtar) measure pack bsdtar bsdtar --format zip --options zip:compression-level=6 -cf "$out/bsdtar.zip" tree ;;
  esac
}
# unpack_one <tool>:<disk|tmpfs>: the extraction is removed afterwards (ours checked first).
shm=/dev/shm/varoft-bench-$$
trap 'rm -rf "$shm"' EXIT
checked=0
unpack_one() {
  local tool=${1%:*} where=${1#*:} x
  if [ "$where" = disk ]; then x=$out/x-$tool; else x=$shm/x-$tool; fi
  rm -rf "$x" && mkdir -p "$x"
  case $tool in
    ours)   measure "unpack-$where" DirUnpackStream "$bin" unpack "$out/zip.zip" "$x" ;;
    unzip)  measure "unpack-$where" unzip unzip -q "$out/zip.zip" -d "$x" ;;
    bsdtar) measure "unpack-$where" bsdtar bsdtar -xf "$out/zip.zip" -C "$x" ;;
  esac
  if [ "$tool" = ours ] && [ $checked -eq 0 ]; then
    diff -rq "$tree" "$x/tree" >/dev/null || { echo "bench-archive: our extraction differs" >&2; exit 1; }
    checked=1
  fi
  rm -rf "$x"
}
# in_turn <run> <items...>: the items, reversed on odd runs.
in_turn() {
  local run=$1
  shift
  if [ $((run % 2)) -eq 0 ]; then printf '%s\n' "$@"; else printf '%s\n' "$@" | tac; fi
}

for run in $(seq 0 $((runs - 1))); do
  echo "run $((run + 1)) of $runs ..." >&2
  for t in $(in_turn "$run" ours ours1 zip bsdtar); do pack_one "$t"; done
  for t in $(in_turn "$run" ours:disk unzip:disk bsdtar:disk ours:tmpfs unzip:tmpfs bsdtar:tmpfs); do unpack_one "$t"; done
done

# Not timed: our archive is sound, the same at one worker, and our extraction is complete.
unzip -tq "$out/ours.zip" >/dev/null || { echo "bench-archive: unzip -t rejects our archive" >&2; exit 1; }
cmp -s "$out/ours.zip" "$out/ours1.zip" || { echo "bench-archive: one worker packs other bytes" >&2; exit 1; }

sizes="ours.zip $(stat -c %s "$out/ours.zip") zip.zip $(stat -c %s "$out/zip.zip") bsdtar.zip $(stat -c %s "$out/bsdtar.zip")"
emit() {
python3 - "$results" "$tree_bytes" "$tree_files" "$sizes" "$runs" <<'PY'
import statistics, sys
rows = [l.rstrip('\n').split('|') for l in open(sys.argv[1])]
tree_bytes, files, runs = int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[5])
sizes = sys.argv[4].split()
sizes = dict(zip(sizes[::2], map(int, sizes[1::2])))
groups = {}  # (op, tool) -> [(seconds, cpu, rss)] in run order
for op, tool, secs, user, system, rss in rows:
    groups.setdefault((op, tool), []).append((float(secs), float(user) + float(system), int(rss)))
mb = tree_bytes / 1e6
def rates(g):
    return ','.join('%.1f' % (mb / max(r[0], 0.001)) for r in g)
def ratios(g, peers):
    return ','.join('%.4f' % (min(p[i][0] for p in peers) / max(r[0], 0.001)) for i, r in enumerate(g))
median = statistics.median
names = {'pack': 'pack', 'unpack-disk': 'unpack onto disk', 'unpack-tmpfs': 'unpack into tmpfs'}
aims = {'pack': '1.60', 'unpack-disk': '1.30', 'unpack-tmpfs': '1.30'}
print('note|archive tree: %d files, %.1f MB; archive bytes: ours %d, zip -6 %d, bsdtar %d (ours %+.2f %% of bsdtar)' % (
    files, mb, sizes['ours.zip'], sizes['zip.zip'], sizes['bsdtar.zip'], 100.0 * (sizes['ours.zip'] / sizes['bsdtar.zip'] - 1)))
for op in ('pack', 'unpack-disk', 'unpack-tmpfs'):
    tools = [t for (o, t) in groups if o == op]
    peers = [groups[(op, t)] for t in tools if not t.startswith('Dir')]
    for tool in tools:
        if not tool.startswith('Dir'):
            continue
        g = groups[(op, tool)]
        one = tool.endswith('1 worker')
        print('row|%s%s vs faster peer|MB/s|%s|%s|%s' % (names[op], ', 1 worker' if one else '', rates(g), ratios(g, peers), '' if one else aims[op]))
    print('note|%s: %s; CPU s %s; peak RSS MiB %s' % (names[op],
        ', '.join('%s %.1f MB/s' % (t, mb / median(r[0] for r in groups[(op, t)])) for t in tools if not t.startswith('Dir')),
        ', '.join('%s %.2f' % (t, median(r[1] for r in groups[(op, t)])) for t in tools),
        ', '.join('%s %.1f' % (t, max(r[2] for r in groups[(op, t)]) / 1024) for t in tools)))
PY
}
if [ "${BENCH_ROWS:-0}" = 1 ]; then emit; else emit | python3 bench/table.py; fi
