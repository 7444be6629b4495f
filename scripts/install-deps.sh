#!/usr/bin/env bash
# Installs the Debian packages that building and testing sarnlink need, if any is missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ ccache pkg-config
  nlohmann-json3-dev libgtest-dev libcurl4-openssl-dev libssl-dev
  g++-mingw-w64-x86-64-posix wine64
  clang libclang-rt-dev
  curl openssl python3 coturn iproute2 nftables chromium
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
