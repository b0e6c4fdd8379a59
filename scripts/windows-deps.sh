#!/usr/bin/env bash
# Builds the static dependency prefix of the Windows build: 64-bit mingw-w64 with the posix
# thread model, everything from Debian packages and Debian source packages.
#
#   scripts/windows-deps.sh                 builds the prefix unless it is current; prints its path
#   scripts/windows-deps.sh --print-prefix  prints the path only
#
# The prefix is keyed by a hash of this script and of the toolchain file, so a rebuilt prefix
# follows every change to either and an unchanged one is reused at once. Default location:
# ${VAROFT_WINDOWS_PREFIX:-$HOME/.cache/varoft/mingw-<hash>}; downloads and logs stay beside it.
#
# Contents: the Debian zlib for mingw-w64, libXau 1.0.11 and pthread-stubs 0.5 (trixie sources,
# bookworm has no tarballs for them), the core of libxcb 1.15, zstd, libarchive 3.6.2 with
# Debian's patches (static library only) and googletest, plus the X protocol headers, the XCB
# protocol descriptions and their generator module unpacked from arch:all binary packages.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
toolchain=$root/cmake/mingw-w64-x86_64.cmake
hash=$(cat "${BASH_SOURCE[0]}" "$toolchain" | sha256sum | cut -c1-12)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/varoft
prefix=${VAROFT_WINDOWS_PREFIX:-$cache/mingw-$hash}
stamp=$prefix/.windows-deps

if [ "${1:-}" = --print-prefix ]; then
  echo "$prefix"
  exit 0
fi

say() { echo "windows-deps: $*" >&2; }

# ---- host packages --------------------------------------------------------------------------

host_packages=(
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix mingw-w64 libz-mingw-w64-dev
  wine wine64
  # building the sources
  dpkg-dev make cmake ninja-build pkg-config python3 xz-utils ca-certificates
)
missing=()
while read -r p status; do
  [ "$status" = installed ] || missing+=("$p")
done < <(for p in "${host_packages[@]}"; do
           printf '%s %s\n' "$p" "$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || echo none)"
         done)
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -eq 0 ]; then
    sudo=()
  elif command -v sudo >/dev/null 2>&1; then
    sudo=(sudo)
  else
    say "need root or sudo to install: ${missing[*]}"
    exit 1
  fi
  say "installing ${missing[*]}"
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
fi

current() { [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$hash" ]; }
if current; then
  echo "$prefix"
  exit 0
fi
# One build at a time per prefix; a run that waited here may find the work done.
mkdir -p "$(dirname "$prefix")"
exec 9>"$prefix.lock"
flock 9
if current; then
  echo "$prefix"
  exit 0
fi
# Only a prefix this script made is ever removed.
if [ -d "$prefix" ] && [ ! -f "$stamp" ] && [ -n "$(ls -A "$prefix")" ]; then
  say "$prefix exists and was not made by this script; choose another VAROFT_WINDOWS_PREFIX"
  exit 1
fi

# ---- build ----------------------------------------------------------------------------------

triple=x86_64-w64-mingw32
export CC=$triple-gcc-posix CXX=$triple-g++-posix AR=$triple-ar RANLIB=$triple-ranlib
export PKG_CONFIG_LIBDIR=$prefix/lib/pkgconfig PKG_CONFIG_PATH= PKG_CONFIG_SYSROOT_DIR=
jobs=${JOBS:-2}
work=$prefix.build
logs=$prefix.logs
sources=$cache/sources
started=$(date +%s)

rm -rf "$prefix" "$work"
mkdir -p "$prefix"
echo building >"$stamp"
mkdir -p "$prefix"/{include,lib/pkgconfig,share} "$work" "$logs" "$sources"

# Runs one step with its output in $logs/<name>.log; on failure shows the log's tail.
step() {
  local name=$1
  shift
  say "$name"
  # A subshell outside any condition, so that errexit holds inside the step's functions.
  set +e
  (set -e; "$@") >"$logs/$name.log" 2>&1
  local rc=$?
  set -e
  if [ $rc -ne 0 ]; then
    say "$name failed; last lines of $logs/$name.log:"
    tail -n 30 "$logs/$name.log" >&2
    exit 1
  fi
}

# A private apt setup: its own sources list, indices and download cache, so the system's
# sources and lists stay as they are. bookworm is the base; trixie supplies the two tarballs
# bookworm lacks.
apt_dir=$cache/apt
mkdir -p "$apt_dir"/{lists/partial,cache/archives/partial,parts}
cat >"$apt_dir/sources.list" <<'EOF'
deb http://deb.debian.org/debian bookworm main
deb-src http://deb.debian.org/debian bookworm main
deb-src http://deb.debian.org/debian trixie main
EOF
apt_opts=(
  -o "Dir::Etc::SourceList=$apt_dir/sources.list" -o "Dir::Etc::SourceParts=$apt_dir/parts"
  -o "Dir::Etc::Preferences=/dev/null" -o "Dir::Etc::PreferencesParts=$apt_dir/parts"
  -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir/cache"
  -o "APT::Sandbox::User=$(id -un)" -o "Debug::NoLocking=1"
)
private_apt() { apt-get -q "${apt_opts[@]}" "$@"; }

fetch() {
  private_apt update
  cd "$sources"
  # Binary arch:all packages: their files are exactly the protocol headers, the XML
  # descriptions and the generator (the archive has no source tarballs for the first two).
  private_apt download x11proto-dev xcb-proto python3-xcbgen
  private_apt source --download-only libxcb/bookworm libzstd/bookworm libarchive/bookworm \
    googletest/bookworm
  private_apt source --download-only --tar-only libxau/trixie libpthread-stubs/trixie
  # The indices are only needed again for the next full build.
  rm -rf "$apt_dir"
}
step fetch fetch

# The newest file of the sources directory that matches a pattern.
newest() { ls -t "$sources"/$1 | head -n 1; }

protocols() {
  local d=$work/debs
  mkdir -p "$d"
  for deb in x11proto-dev_ xcb-proto_ python3-xcbgen_; do
    dpkg-deb -x "$(newest "$deb*_all.deb")" "$d"
  done
  cp -r "$d/usr/include/X11" "$prefix/include/"
  mkdir -p "$prefix/share/xcb" "$prefix/share/python"
  cp "$d"/usr/share/xcb/*.xml "$prefix/share/xcb/"
  cp -r "$d/usr/lib/python3/dist-packages/xcbgen" "$prefix/share/python/"
  for pc in "$d"/usr/share/pkgconfig/*.pc; do
    sed -e 's|^prefix=.*|prefix=${pcfiledir}/../..|' \
        -e 's|^xcbincludedir=.*|xcbincludedir=${datadir}/xcb|' \
        -e 's|^pythondir=.*|pythondir=${datarootdir}/python|' \
        "$pc" >"$prefix/lib/pkgconfig/$(basename "$pc")"
  done
  # zlib from libz-mingw-w64-dev, the static archive only, so no link can pick the DLL.
  cp /usr/$triple/lib/libz.a "$prefix/lib/"
  cp /usr/$triple/include/zlib.h /usr/$triple/include/zconf.h "$prefix/include/"
  local zver
  zver=$(sed -n 's/^Version: *//p' /usr/$triple/lib/pkgconfig/zlib.pc)
  cat >"$prefix/lib/pkgconfig/zlib.pc" <<EOF
prefix=\${pcfiledir}/../..
libdir=\${prefix}/lib
includedir=\${prefix}/include

Name: zlib
Description: zlib compression library
Version: $zver
Libs: -L\${libdir} -lz
Cflags: -I\${includedir}
EOF
}
step protocols protocols

unpack() {  # unpack <dir name> <.dsc or tarball>
  cd "$work"
  case "$2" in
    *.dsc) dpkg-source --no-check -x "$2" "$1" ;;
    *) mkdir "$1" && tar -xf "$2" -C "$1" --strip-components=1 ;;
  esac
}

autotools() {  # autotools <dir name> <source> [configure arguments...]
  local name=$1 src=$2
  shift 2
  unpack "$name" "$src"
  cd "$work/$name"
  ./configure --host=$triple --prefix="$prefix" --enable-static --disable-shared "$@"
  make -j"$jobs"
  make install
}

cmake_build() {  # cmake_build <dir name> <source> <source subdir> <target or ""> [cmake arguments...]
  local name=$1 src=$2 sub=$3 target=$4
  shift 4
  unpack "$name" "$src"
  cmake -S "$work/$name/$sub" -B "$work/$name/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DVAROFT_WINDOWS_PREFIX="$prefix" \
    -DCMAKE_INSTALL_PREFIX="$prefix" -DBUILD_SHARED_LIBS=OFF "$@"
  if [ -n "$target" ]; then
    cmake --build "$work/$name/build" -j "$jobs" --target "$target"
  else
    cmake --build "$work/$name/build" -j "$jobs"
    cmake --install "$work/$name/build"
  fi
}

step pthread-stubs autotools pthread-stubs "$(newest 'libpthread-stubs_*.orig.tar.*')"
step libxau autotools libxau "$(newest 'libxau_*.orig.tar.*')"

libxcb() {
  unpack libxcb "$(newest 'libxcb_*.dsc')"
  cd "$work/libxcb"
  # Only the core protocol is used: switch off every extension library.
  local off=()
  mapfile -t off < <(./configure --help | sed -n 's/^ *--enable-\([a-z0-9-]*\) .*Build XCB .*/--disable-\1/p')
  [ ${#off[@]} -gt 10 ] || { echo "no extension switches found in configure --help"; return 1; }
  ./configure --host=$triple --prefix="$prefix" --enable-static --disable-shared \
    --disable-devel-docs --without-doxygen --without-launchd "${off[@]}"
  make -j"$jobs"
  make install
}
step libxcb libxcb

step zstd cmake_build zstd "$(newest 'libzstd_*.dsc')" build/cmake "" \
  -DZSTD_BUILD_STATIC=ON -DZSTD_BUILD_SHARED=OFF -DZSTD_BUILD_PROGRAMS=OFF \
  -DZSTD_BUILD_TESTS=OFF -DZSTD_BUILD_CONTRIB=OFF -DZSTD_MULTITHREAD_SUPPORT=OFF \
  -DZSTD_LEGACY_SUPPORT=OFF

# libarchive: zlib and zstd only; POSIX_REGEX_LIB=NONE, or its configure stops with "libgcc
# not found". Only the static library is built and installed by hand.
libarchive() {
  cmake_build libarchive "$(newest 'libarchive_*.dsc')" . archive_static \
    -DENABLE_ZLIB=ON -DENABLE_ZSTD=ON -DENABLE_LZMA=OFF -DENABLE_BZip2=OFF -DENABLE_LZ4=OFF \
    -DENABLE_LZO=OFF -DENABLE_LIBB2=OFF -DENABLE_LIBXML2=OFF -DENABLE_EXPAT=OFF \
    -DENABLE_PCREPOSIX=OFF -DENABLE_LIBGCC=OFF -DENABLE_OPENSSL=OFF -DENABLE_MBEDTLS=OFF \
    -DENABLE_NETTLE=OFF -DENABLE_CNG=OFF -DENABLE_ICONV=OFF -DENABLE_ACL=OFF -DENABLE_XATTR=OFF \
    -DENABLE_TAR=OFF -DENABLE_CPIO=OFF -DENABLE_CAT=OFF -DENABLE_TEST=OFF \
    -DENABLE_INSTALL=OFF -DPOSIX_REGEX_LIB=NONE
  local b=$work/libarchive
  cp "$b/libarchive/archive.h" "$b/libarchive/archive_entry.h" "$prefix/include/"
  cp "$(find "$b/build" -name 'libarchive*.a' | head -n 1)" "$prefix/lib/libarchive.a"
  local ver
  ver=$(sed -En 's/^#define[[:space:]]+ARCHIVE_VERSION_ONLY_STRING[[:space:]]+"(.*)"/\1/p' \
    "$b/libarchive/archive.h")
  [ -n "$ver" ]
  cat >"$prefix/lib/pkgconfig/libarchive.pc" <<EOF
prefix=\${pcfiledir}/../..
libdir=\${prefix}/lib
includedir=\${prefix}/include

Name: libarchive
Description: library that can create and read several streaming archive formats
Version: $ver
Requires: libzstd zlib
Libs: -L\${libdir} -larchive
Cflags: -I\${includedir} -DLIBARCHIVE_STATIC
EOF
}
step libarchive libarchive

step googletest cmake_build googletest "$(newest 'googletest_*.dsc')" . "" \
  -DBUILD_GMOCK=OFF -DINSTALL_GTEST=ON

# A static-only prefix: fold the private requirements and libraries into the public ones so
# that a plain `pkg-config --libs` is a complete link line, and make every file relative to
# its own place so that the prefix can move.
flatten() {
  local pc
  for pc in "$prefix"/lib/pkgconfig/*.pc "$prefix"/share/pkgconfig/*.pc; do
    [ -f "$pc" ] || continue
    python3 - "$pc" "$prefix" <<'EOF'
import re, sys
path, prefix = sys.argv[1], sys.argv[2]
lines = open(path).read().splitlines()
fields, out = {}, []
for line in lines:
    m = re.match(r'(Libs|Requires)(\.private)?:\s*(.*)$', line)
    if m:
        fields.setdefault(m.group(1), []).append(m.group(3).strip())
        continue
    line = re.sub(r'^prefix=.*', 'prefix=${pcfiledir}/../..', line)
    out.append(line.replace(prefix + '/', '${pcfiledir}/../../'))
for key in ('Requires', 'Libs'):
    value = ' '.join(v for v in fields.get(key, []) if v)
    if value:
        out.append(f'{key}: {value}')
open(path, 'w').write('\n'.join(out) + '\n')
EOF
  done
  if [ -d "$prefix/share/pkgconfig" ]; then
    mv "$prefix"/share/pkgconfig/*.pc "$prefix/lib/pkgconfig/" 2>/dev/null || true
    rmdir "$prefix/share/pkgconfig"
  fi
  # No import libraries, libtool archives or DLLs may remain, nor what only the build needed
  # (manual pages, the XCB protocol descriptions and their generator).
  find "$prefix" \( -name '*.dll.a' -o -name '*.la' -o -name '*.dll' \) -delete
  rm -rf "$prefix"/share/{man,doc,xcb,python} "$prefix/lib/pkgconfig/xcb-proto.pc"
  rmdir --ignore-fail-on-non-empty "$prefix/share"
  if grep -l "$prefix" "$prefix"/lib/pkgconfig/*.pc; then
    echo "absolute paths remain in the files above"
    return 1
  fi
  # Sanity: every package resolves.
  local m
  for m in xcb xau libzstd libarchive zlib gtest gtest_main; do
    pkg-config --exists --print-errors "$m"
  done
  pkg-config --cflags --libs xcb libarchive
}
step flatten flatten

rm -rf "$work"
echo "$hash" >"$stamp"
say "prefix ready in $(($(date +%s) - started)) s, $(du -sh "$prefix" | cut -f1): $prefix"
echo "$prefix"
