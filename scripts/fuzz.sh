#!/usr/bin/env bash
# Fuzzes the unpack stream, then the session's dispatch, for N seconds each (default 60):
#   scripts/fuzz.sh 60          the short run of scripts/test.sh
#   scripts/fuzz.sh 3600        a longer run; the corpora it grows are kept in build-fuzz/corpus
#                               and build-fuzz/session-corpus
#   scripts/fuzz.sh 600 session one target only (unpack or session)
# The unpack seeds are made here from archives written by zip, bsdtar and Python (nothing binary
# is kept in the repository); the session target starts from nothing. Findings are written to
# build-fuzz/findings/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
targets=${2:-unpack session}
fuzzer=build-fuzz/tests/fuzz/unpack_fuzzer
[ -x "$fuzzer" ] && [ -x build-fuzz/tests/fuzz/session_fuzzer ] || bash scripts/build.sh fuzz

seeds=build-fuzz/seeds
corpus=build-fuzz/corpus
findings=build-fuzz/findings
mkdir -p "$corpus" "$findings"
rm -rf "$seeds" && mkdir -p "$seeds"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(
  cd "$work"
  mkdir -p src/sub/deeper src/emptydir
  printf 'hello, archive\n%.0s' {1..40} > src/text.txt
  head -c 700 /dev/urandom > src/sub/random.bin
  printf 'x' > src/sub/deeper/one
  printf 'abcabcabc%.0s' {1..50} > 'src/sub/name with space.txt'
  command -v zip >/dev/null && {
    zip -qr zip.zip src
    zip -qr0 zip-stored.zip src
    zip -qr - src | cat > zip-piped.zip
    zip -qr -fz - src | cat > zip64-piped.zip
    zip -qr -fz zip64.zip src
  }
  command -v bsdtar >/dev/null && {
    bsdtar --format zip -cf bsdtar.zip src
    bsdtar --format zip --options zip:compression=store -cf bsdtar-stored.zip src
  }
  command -v python3 >/dev/null && python3 - <<'PY'
import os, struct, subprocess, zipfile, zlib
with zipfile.ZipFile('python.zip', 'w', zipfile.ZIP_DEFLATED) as z:
    for root, dirs, files in os.walk('src'):
        for d in dirs: z.write(os.path.join(root, d))
        for f in files: z.write(os.path.join(root, f))
# An entry of method 93 (zstd), with and without a data descriptor, when the zstd tool is there.
try:
    data = open('src/text.txt', 'rb').read()
    packed = subprocess.run(['zstd', '-q', '-c'], input=data, capture_output=True, check=True).stdout
except (OSError, subprocess.CalledProcessError):
    packed = None
if packed is not None:
    crc = zlib.crc32(data)
    out = b''
    for name, described in ((b'z.txt', False), (b'zd.txt', True)):
        flag = 8 if described else 0
        out += struct.pack('<IHHHHHIIIHH', 0x04034b50, 63, flag, 93, 0, 0x21,
                           0 if described else crc, 0 if described else len(packed),
                           0 if described else len(data), len(name), 0) + name + packed
        if described:
            out += struct.pack('<IIII', 0x08074b50, crc, len(packed), len(data))
    out += struct.pack('<IHHHHIIII', 0x02014b50, 0x31e, 63, 0, 93, 0, 0, 0, 0)
    open('zstd.zip', 'wb').write(out)
PY
) >/dev/null

# Each archive twice: written whole (mode 0) into a target with files in the way of its entries,
# and in random chunks (mode 3) with links to a directory outside in the way as well.
for f in "$work"/*.zip; do
  [ -e "$f" ] || continue
  base=$(basename "$f" .zip)
  { printf '\000\001\002\003\004'; cat "$f"; } > "$seeds/$base-whole"
  { printf '\003\023\042\063\104'; cat "$f"; } > "$seeds/$base-chunked"
done

# The targets' scratch directories live in memory when they can: the runs create and remove many files.
scratch=/tmp
[ -d /dev/shm ] && [ -w /dev/shm ] && scratch=/dev/shm
# A fuzzer ends without running its own clean-up: its scratch directory goes with the run's.
scratch=$(mktemp -d "$scratch/varoft-fuzz-run.XXXXXX")
trap 'rm -rf "$work" "$scratch"' EXIT
# Each run may allocate (and free) a zstd window of megabytes; a smaller quarantine keeps the
# sanitizer's memory, and the speed, in check.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=16"
status=0
run() {  # name, binary, log, corpus directories...
  local name=$1 binary=$2 log=$3 rc=0
  shift 3
  TMPDIR=$scratch "$binary" -max_total_time="$seconds" -max_len=32768 -timeout=20 -rss_limit_mb=2048 \
    -artifact_prefix="$PWD/$findings/" -print_final_stats=1 "$@" >"$log" 2>&1 || rc=$?
  grep -E 'INITED|DONE|stat::number_of_executed_units|stat::peak_rss_mb|==[0-9]+==|SUMMARY|Test unit written|touched outside' "$log" || true
  if [ "$rc" -ne 0 ]; then
    echo "fuzz: $name failed (status $rc), see $log and $findings/" >&2
    status=$rc
  fi
}
for target in $targets; do
  case "$target" in
    unpack)
      echo "fuzz: unpack stream, $(ls "$seeds" | wc -l) seeds, ${seconds}s"
      run unpack "$fuzzer" build-fuzz/fuzz.log "$corpus" "$seeds" ;;
    session)
      # The target works from a directory of its own: its corpus is named by an absolute path.
      echo "fuzz: session dispatch, ${seconds}s"
      mkdir -p build-fuzz/session-corpus
      run session build-fuzz/tests/fuzz/session_fuzzer build-fuzz/session-fuzz.log "$PWD/build-fuzz/session-corpus" ;;
    *) echo "fuzz.sh: unknown target $target" >&2; exit 2 ;;
  esac
done
exit "$status"
