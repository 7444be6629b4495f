#!/usr/bin/env bash
# Installs the Debian packages that building, testing and packaging sarnlink need, if any is
# missing. `scripts/install-deps.sh --list` prints the list and installs nothing; the tool
# check (scripts/check-tools.sh) reads it from there.
set -euo pipefail

# One package a line; a new need of the build or the tests goes here and nowhere else.
packages=(
  cmake
  ninja-build
  g++
  ccache
  pkg-config
  nlohmann-json3-dev
  libgtest-dev
  libcurl4-openssl-dev
  libssl-dev
  libminiupnpc-dev
  g++-mingw-w64-x86-64-posix
  binutils-mingw-w64-x86-64
  wine
  wine64
  clang
  libclang-rt-dev
  curl
  openssl
  osslsigncode
  python3
  coturn
  iproute2
  nftables
  miniupnpd-nftables
  conntrack
  dpkg-dev
  file
  chromium
  nginx
  wrk
  strace
  valgrind
)

if [ "${1:-}" = "--list" ]; then
  printf '%s\n' "${packages[@]}"
  exit 0
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  "$(dirname "$0")/build-miniupnpc-mingw.sh"
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Another apt on the machine holds the lock for a while; wait for it rather than fail.
$sudo apt-get -o DPkg::Lock::Timeout=300 update -q
$sudo apt-get -o DPkg::Lock::Timeout=300 install -y -q --no-install-recommends "${missing[@]}"
# The cross build links miniupnpc, which no package carries for MinGW-w64.
"$(dirname "$0")/build-miniupnpc-mingw.sh"
