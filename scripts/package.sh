#!/usr/bin/env bash
# Builds the Debian package as a packager would, with Debian's default compiler and linker flags
# (dpkg-buildflags: -O2, fortify, stack protector, relro, ...), and checks it with lintian.
#   scripts/package.sh          -> out/varoft_<version>-<release>_<arch>.deb (build in build-deb/)
# Install it with: sudo apt install ./out/varoft_*.deb
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

# CMake reads no CPPFLAGS: the preprocessor flags (-D_FORTIFY_SOURCE=2, ...) go with the compiler's.
flags() { dpkg-buildflags --get "$1"; }
cmake -S . -B build-deb -G Ninja -DCMAKE_BUILD_TYPE=None \
  -DCMAKE_C_FLAGS="$(flags CFLAGS) $(flags CPPFLAGS)" -DCMAKE_CXX_FLAGS="$(flags CXXFLAGS) $(flags CPPFLAGS)" \
  -DCMAKE_EXE_LINKER_FLAGS="$(flags LDFLAGS)" -DVAROFT_TESTS=OFF -DVAROFT_BENCH=OFF >/dev/null
cmake --build build-deb -j "${JOBS:-$(nproc)}" --target varoft varoft_dist
rm -f out/varoft_*.deb
cpack --config build-deb/CPackConfig.cmake -B out >/dev/null
rm -rf out/_CPack_Packages
deb=$(ls out/varoft_*.deb)

echo "== $deb"
dpkg-deb --field "$deb" Package Version Architecture Section Depends
dpkg-deb --contents "$deb" | awk '{print "  " $6}'
echo "== lintian"
lintian --fail-on error "$deb" && echo "lintian: no errors"
