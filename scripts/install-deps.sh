#!/usr/bin/env bash
# Installs the Debian packages that building, testing, the demo and the benchmarks need.
# Idempotent: only missing packages are installed. Works as root or through sudo.
set -euo pipefail

packages=(
  # build
  build-essential cmake ninja-build pkg-config git
  libxcb1-dev libxau-dev zlib1g-dev libzstd-dev libarchive-dev
  libgtest-dev googletest
  # the fuzz target (libFuzzer ships with clang's runtime)
  clang libclang-rt-14-dev
  # peers the tests and benchmarks compare against
  zip unzip libarchive-tools 7zip python3 file time
  # the zstd tool makes a zstd entry for the fuzz seed corpus
  zstd
  # the Debian package (scripts/package.sh): dpkg-shlibdeps, dpkg-buildflags, lintian
  dpkg-dev lintian
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "install-deps: need root or sudo to install: ${missing[*]}" >&2
  exit 1
fi
echo "install-deps: installing ${missing[*]}" >&2
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
