#!/usr/bin/env bash
# The main job: installs what is missing, builds, starts the loopback desktop as the far side,
# and shows varoft moving files and a directory to it and back, and printing a file on it. Run on
# a terminal, varoft also shows its progress line and a summary after each transfer.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

bash scripts/install-deps.sh
echo "== building (this takes a few minutes the first time)"
bash scripts/build.sh release >/dev/null

varoft="$root/build/src/app/varoft"
desktop_bin="$root/build/tools/loopback-desktop/loopback-desktop"
work=$(mktemp -d /tmp/varoft-demo.XXXXXX)
desktop_pid=
cleanup() {
  [ -n "$desktop_pid" ] && kill "$desktop_pid" 2>/dev/null && wait "$desktop_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
run() { printf '$ %s\n' "$*"; "$@"; }
show_desktop_log() {
  # What the far side saw since the last look.
  sleep 0.2
  tail -n +"$((seen + 1))" "$work/desktop.log" | sed 's/^/    | /'
  seen=$(wc -l < "$work/desktop.log")
}

# Some local material to move around.
mkdir -p "$work/local/project/src" "$work/local/project/docs/empty"
printf 'Quarterly report\n================\nAll figures are in the attached tables.\n' > "$work/local/report.txt"
head -c 3000000 /dev/urandom > "$work/local/project/data.bin"
for i in $(seq 1 40); do printf 'line %d of module %d\n' $(seq 1 200) "$i" > "$work/local/project/src/module$i.c"; done
printf 'Read me first.\n' > "$work/local/project/docs/README"
printf 'Meeting notes\n- ship the client\n- measure it\n' > "$work/local/notes.txt"

step "Starting the loopback desktop (the far side) in $work/desktop"
"$desktop_bin" --folder "$work/desktop" --print-folder "$work/printed" > "$work/desktop.log" 2>&1 &
desktop_pid=$!
for _ in $(seq 1 100); do grep -q 'serving :' "$work/desktop.log" 2>/dev/null && break; sleep 0.05; done
display=$(grep -o 'serving :[0-9]*' "$work/desktop.log" | head -1 | cut -d' ' -f2)
[ -n "$display" ] || { echo "the loopback desktop did not start:"; cat "$work/desktop.log"; exit 1; }
seen=0
show_desktop_log
export DISPLAY=$display
cd "$work/local"

step "1. Copy a file to the desktop"
run "$varoft" -put report.txt
show_desktop_log

step "2. Copy it back under another name, and compare"
run "$varoft" -get report.txt ./report-back.txt
show_desktop_log
cmp report.txt report-back.txt || { echo "MISMATCH: report-back.txt differs"; exit 1; }
echo "report-back.txt is identical to report.txt"

step "3. Copy a 1 GiB file to the desktop (on a terminal a progress line shows how it goes)"
# Sparse: it takes no room here, and the desktop keeps its zero blocks as holes.
truncate -s 1G disk-image.bin
run "$varoft" -put disk-image.bin
show_desktop_log
rm -f disk-image.bin "$work/desktop/disk-image.bin"

step "4. Copy a whole directory to the desktop (it travels as a ZIP stream)"
run "$varoft" -putd project project
show_desktop_log

step "5. Fetch the directory back, and compare the trees"
# The local side of -getd names its parent directory, here the current one.
run "$varoft" -getd project ./project-back
show_desktop_log
diff -r project project-back || { echo "MISMATCH: the trees differ"; exit 1; }
echo "project-back is identical to project ($(find project -type f | wc -l) files)"

step "6. Print a text file on the desktop"
run "$varoft" -v -print notes.txt
show_desktop_log
echo "The desktop's print folder now holds notes.txt:"
sed 's/^/    > /' "$work/printed/notes.txt"

step "7. A file that cannot be printed is refused locally"
run "$varoft" -print project/data.bin || true

step "8. Let the desktop drive: it browses your home folder, then renames and deletes in the demo folder"
# A second loopback desktop plays a short script; varoft, started with no operation, serves it.
cat > "$work/session.txt" <<SCRIPT
list $HOME
list $work/local
rename $work/local/notes.txt $work/local/notes-renamed.txt
delete $work/local/project-back
list $work/local
close
SCRIPT
"$desktop_bin" --once --folder "$work/desktop2" --script "$work/session.txt" > "$work/session.log" 2>&1 &
session_pid=$!
for _ in $(seq 1 100); do grep -q 'serving :' "$work/session.log" 2>/dev/null && break; sleep 0.05; done
session_display=$(grep -o 'serving :[0-9]*' "$work/session.log" | head -1 | cut -d' ' -f2)
run "$varoft" -display "$session_display"
wait "$session_pid" 2>/dev/null || true
sed 's/^/    | /' "$work/session.log"
[ -f notes-renamed.txt ] && [ ! -e project-back ] && echo "notes.txt was renamed and project-back deleted, as the desktop asked"

echo
echo "Done. Each run above was one X11 connection to a loopback desktop."
