#!/usr/bin/env bash
# A short fuzz run for CI: every target for a bounded time (default 20 s each) from its
# committed seeds only, so each run is the same size and the long runs' corpora stay untouched.
set -euo pipefail
cd "$(dirname "$0")/.."
FUZZ_WORK=build/linux-fuzz/smoke-corpus FUZZ_FRESH=1 exec scripts/fuzz-long.sh "${1:-20}"
