#!/usr/bin/env bash
# Injects single-line faults into src/ one at a time and reports which ones the test suite
# catches (a build failure counts as caught only when a test file no longer compiles).
#   scripts/inject-faults.sh [TREE] [BUILD]   default: this checkout and build/
# TREE may be an exported older revision, to compare suites; every fault names the files it may
# live in (the first that holds the text is used) and a Perl substitution, '#'-separated, that must change
# exactly one line. The tree is restored after each fault.
set -euo pipefail
tree=$(cd "${1:-$(dirname "$0")/..}" && pwd)
build=${2:-$tree/build}
jobs=${JOBS:-2}
faults=(
  "name B bound 1023 -> 1022#src/filetransfer/framing.cpp src/filetransfer/transfer.cpp#s/(hasNameB = (t\.)?lengthB >= 1 && (t\.)?lengthB <= kNameMax)/\$1 - 1/"
  "control-byte table edge 0x1F -> 0x1E#src/print/classify.cpp#s/c <= 0x1F; \+\+c/c <= 0x1E; ++c/"
  "block C dropped in the wrong direction#src/filetransfer/framing.cpp#s/(if \(\w+\.direction != )(2|kDirectionFromDesktop)\)/\${1}1)/"
  "hidden entries listed#src/filetransfer/listing.cpp#s/name\.front\(\) == '\.'/name.front() == ','/"
  "delete takes a directory for a file#src/filetransfer/delete_rename.cpp#s/st\.kind == platform::Kind::Directory\) return/st.kind == platform::Kind::Regular) return/"
  "rename status inverted#src/filetransfer/delete_rename.cpp#s/kStatusRename, !moved/kStatusRename, moved/"
  "chunk one byte short#src/filetransfer/protocol.h#s/kChunkSize = 131072/kChunkSize = 131071/"
  "kind 3 is no move#src/filetransfer/transfer.cpp#s/ \|\| objectType == kObjectMoveFileToo//"
  "local path bound 1023 -> 1022#src/app/driver.cpp#s/kLocalPathMax = 1023/kLocalPathMax = 1022/"
  "code 2 does not stop printing#src/print/requests.cpp#s/moreFilesAccepted = 0;/moreFilesAccepted = 1;/"
  "print chunk one byte short#src/print/print_loop.h#s/kPrintChunkSize = 60000/kPrintChunkSize = 59999/"
  "entry names cut one byte early#src/filetransfer/listing.cpp#s/name\.substr\(0, kEntryNameMax\)/name.substr(0, kEntryNameMax - 1)/"
  "empty delete path reports the wrong error#src/filetransfer/delete_rename.cpp#s/platform::missingErrorCode\(\)/platform::deniedErrorCode()/"
  "overwrite refused on N#src/filetransfer/session.cpp#s/answer == 'n'/answer == 'N'/"
  "the root offers ..#src/filetransfer/listing.cpp#s/find_first_not_of\('\/'\) == std::string_view::npos/find_first_not_of('\/') != std::string_view::npos/"
  "no-transfer reply kind 6 -> 7#src/filetransfer/protocol.h#s/kReplyNoTransfer = 6/kReplyNoTransfer = 7/"
  "old log file kept#src/common/log.cpp src/app/log.cpp#s/platform::removeFile\(LogFilePath\);/;/"
  "chunk data may pass the event by 4 bytes#src/filetransfer/framing.cpp src/filetransfer/transfer.cpp#s/endData > available\)/endData > available + 4)/"
  "status flag inverted#src/filetransfer/framing.cpp#s/failed \? 1 : 0/failed ? 0 : 1/"
  "PDF signature shortened#src/print/classify.cpp#s/\"%PDF-\"/\"%PDF\"/"
  "UTF-8 lead 0xF0 taken as 2 bytes#src/print/classify.cpp#s/else if \(\(c & 0xF8\) == 0xF0\) expected = 3;/else if ((c \& 0xF8) == 0xF0) expected = 2;/"
  "listing failure keeps the new directory#src/filetransfer/listing.cpp#s/(\w+\.?)?[bB]rowsingDirectory = previous;/;/"
)
results=()
for fault in "${faults[@]}"; do
  IFS='#' read -r name files expr <<<"$fault"
  target=""
  for f in $files; do
    if [ -f "$tree/$f" ] && perl -ne "\$n++ if $expr; END { exit(\$n == 1 ? 0 : 1) }" "$tree/$f"; then target=$f; break; fi
  done
  if [ -z "$target" ]; then results+=("n/a     | $name"); continue; fi
  cp "$tree/$target" "$tree/$target.orig"
  perl -pi -e "$expr" "$tree/$target"
  verdict=missed
  if ! cmake --build "$build" -j "$jobs" >"$build/fault-build.log" 2>&1; then
    verdict="caught (build)"
  elif ! ctest --test-dir "$build" -j "$jobs" --timeout 120 >"$build/fault-test.log" 2>&1; then
    verdict="caught: $(grep -E '^\s+[0-9]+ - ' "$build/fault-test.log" | head -2 | sed 's/^ *[0-9]* - //; s/ (.*//' | paste -sd, -)"
  fi
  mv "$tree/$target.orig" "$tree/$target"
  touch "$tree/$target"
  results+=("$verdict | $name")
  echo "$verdict | $name" >&2
done
cmake --build "$build" -j "$jobs" >/dev/null 2>&1 || true
printf '%s\n' "${results[@]}"
