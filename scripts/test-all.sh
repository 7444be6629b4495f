#!/usr/bin/env bash
# Installs what is missing, builds sarnlink for Linux and for Windows, and runs every test:
# the Linux suite natively and the Windows suite under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
export WINEDEBUG=-all
# Keep one Wine server up for the whole Windows suite instead of one per test program.
if command -v wineserver >/dev/null; then wineboot -i >/dev/null 2>&1 || true; wineserver -p 600 || true; fi

status=0
for preset in linux-debug windows-release; do
  echo "== $preset: build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== $preset: test"
  ctest --preset "$preset" -j "$jobs" || status=1
done
exit $status
