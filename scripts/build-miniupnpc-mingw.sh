#!/usr/bin/env bash
# Builds miniupnpc (the UPnP IGD client) for the Windows cross build, since no MinGW-w64 build of
# it is packaged: the same release as Debian's libminiupnpc-dev, from Debian's own source
# tarball, checked against its pinned SHA-256, installed as a static library under $prefix,
# which cmake/mingw-w64.cmake searches. Nothing lands in the repository. Does nothing when that
# release is installed already.
set -euo pipefail

version=2.2.4
sha256=481a5e4aede64e9ef29895b218836c3608d973e77a35b4f228ab1f3629412c4b
url=http://deb.debian.org/debian/pool/main/m/miniupnpc/miniupnpc_${version}.orig.tar.gz
prefix=/usr/local/x86_64-w64-mingw32
stamp=$prefix/share/miniupnpc-version

if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$version" ]; then exit 0; fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo "building miniupnpc $version for MinGW-w64 into $prefix"
curl -sSf -o "$work/miniupnpc.tar.gz" "$url"
echo "$sha256  $work/miniupnpc.tar.gz" | sha256sum -c --quiet -
tar -xzf "$work/miniupnpc.tar.gz" -C "$work"
cmake -S "$work/miniupnpc-$version" -B "$work/build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$(cd "$(dirname "$0")/.." && pwd)/cmake/mingw-w64.cmake" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
  -DUPNPC_BUILD_STATIC=ON -DUPNPC_BUILD_SHARED=OFF -DUPNPC_BUILD_TESTS=OFF -DUPNPC_BUILD_SAMPLE=OFF >/dev/null
cmake --build "$work/build" >/dev/null
$sudo cmake --install "$work/build" >/dev/null
$sudo mkdir -p "$(dirname "$stamp")"
echo "$version" | $sudo tee "$stamp" >/dev/null
