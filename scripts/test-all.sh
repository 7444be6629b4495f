#!/usr/bin/env bash
# Installs what is missing, builds sarnlink for Linux and for Windows, and runs every test:
# the Linux suite natively, the Windows suite under Wine, the Linux suite again under
# AddressSanitizer with UndefinedBehaviorSanitizer and under ThreadSanitizer, and a short run
# of every fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
export WINEDEBUG=-all
# Keep one Wine server up for the whole Windows suite instead of one per test program.
if command -v wineserver >/dev/null; then wineboot -i >/dev/null 2>&1 || true; wineserver -p 600 || true; fi

# A sanitizer report fails the test that caused it, with the stack that led there. Child
# processes (sarnlink-cli) inherit these.
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:print_stacktrace=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:history_size=4}

status=0
for preset in linux-debug windows-release linux-asan linux-tsan; do
  echo "== $preset: build (at ${SECONDS} s)"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== $preset: test (at ${SECONDS} s)"
  ctest --preset "$preset" -j "$jobs" || status=1
done
echo "== fuzz smoke (at ${SECONDS} s)"
scripts/fuzz-smoke.sh || status=1
echo "== done in ${SECONDS} s"
exit $status
