#!/usr/bin/env bash
# Installs what is missing, builds sarnlink for Linux and for Windows, and runs every test:
# the Linux suite natively, the Windows suite under Wine, the Linux suite again under
# AddressSanitizer with UndefinedBehaviorSanitizer and under ThreadSanitizer, a short run
# of every fuzz target, and last the release packages, built and checked as a player gets them.
# Each stage prints how long it took, and a table of all of them closes the run; a stage that is
# quiet for a while says every 50 s that it is still at work.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/progress.sh
scripts/install-deps.sh

stage_names=()
stage_seconds=()
stage_cpu=()
status=0
# Processor seconds of all finished child processes. On a machine that others share, the wall
# time of a build stage says little; its processor time divided by the cores says what it takes
# on a machine of its own.
cpu_seconds() {
  local f
  read -r -a f < /proc/$$/stat  # fields 16 and 17: user and system time of waited-for children
  echo $(( (f[15] + f[16]) / $(getconf CLK_TCK) ))
}
# stage NAME fatal|go-on COMMAND...: a failed build ends the run at once (nothing after it can
# pass); a failed test stage marks the run failed and lets the other stages run.
stage() {
  local name=$1 kind=$2 started=$SECONDS cpu_started rc=0
  cpu_started=$(cpu_seconds)
  shift 2
  echo "== $name (at $SECONDS s)"
  with_progress 50 "$name" "$@" || rc=$?
  stage_names+=("$name")
  stage_seconds+=($((SECONDS - started)))
  stage_cpu+=($(($(cpu_seconds) - cpu_started)))
  echo "== $name: $((SECONDS - started)) s, cpu ${stage_cpu[-1]} s$([ $rc -eq 0 ] || echo ", FAILED")"
  if [ $rc -ne 0 ]; then
    status=1
    if [ "$kind" = fatal ]; then summary; exit 1; fi
  fi
}
summary() {
  echo "== stage times (wall clock; processor time of the stage's programs; $(nproc) cores)"
  local i
  for i in "${!stage_names[@]}"; do
    printf '   %-26s %5d s  cpu %5d s\n' "${stage_names[$i]}" "${stage_seconds[$i]}" "${stage_cpu[$i]}"
  done
  printf '   %-26s %5d s  cpu %5d s\n' "total" "$SECONDS" "$(cpu_seconds)"
}

stage "tools" fatal scripts/check-tools.sh

jobs=$(nproc)
export WINEDEBUG=-all
wineboot -i >/dev/null 2>&1 || true

# A sanitizer report fails the test that caused it, with the stack that led there. Child
# processes (sarnlink-cli) inherit these.
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:print_stacktrace=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:history_size=4}

build() { cmake --preset "$1" >/dev/null && cmake --build --preset "$1" -j "$jobs"; }
# One Wine server stays up for the whole Windows suite instead of one per test program, and it is
# warmed up first: the first program of a fresh server starts Wine's own services, and its exit
# has been seen to hang there. Wine also, rarely, leaves a test program hanging after its last
# test passed (at process exit, or in a send to a socket the other end reset); a test that times
# out under Wine runs once more. A test that fails an assertion is never run again.
wine_suite() {
  wineserver -p || true
  wine cmd /c exit >/dev/null 2>&1 || true
  local rc=0
  ctest --preset windows-release -j "$jobs" --repeat after-timeout:2 || rc=$?
  wineserver -k || true
  return $rc
}
for preset in linux-debug windows-release linux-asan linux-tsan; do
  stage "$preset build" fatal build "$preset"
  if [ "$preset" = windows-release ]; then
    stage "$preset test" go-on wine_suite
  else
    stage "$preset test" go-on ctest --preset "$preset" -j "$jobs"
  fi
done
stage "fuzz smoke" go-on scripts/fuzz-smoke.sh
stage "release packages" fatal scripts/release.sh
stage "package checks" go-on scripts/check-packages.sh
summary
exit $status
