#!/usr/bin/env bash
# Installs what is missing, builds sarnlink-cli and runs the bridge in this console.
# Any arguments go to sarnlink-cli; stop it with Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset linux-release >/dev/null
cmake --build --preset linux-release --target sarnlink-cli -j "$(nproc)"
exec build/linux-release/sarnlink-cli "$@"
