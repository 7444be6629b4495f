#!/usr/bin/env bash
# Builds the fuzz targets (preset linux-fuzz, clang) and runs each one in turn.
#   scripts/fuzz-long.sh [BUDGET] [TARGET...]
# BUDGET is seconds per target (default 600) or a count of runs such as 200000runs.
# TARGET names a fuzz/<name>_fuzz.cpp (e.g. config); all targets when none is named.
# Each target keeps its working corpus in build/linux-fuzz/corpus/<name>/ across runs, starting
# from the committed seeds in fuzz/corpus/<name>/, which are read and never written.
# A crash or a failed property leaves its input in build/linux-fuzz/findings/ and fails the script.
# FUZZ_WORK moves the working corpora, FUZZ_FRESH=1 empties them first (start from the seeds
# alone), FUZZ_ARGS adds libFuzzer options.
set -euo pipefail
cd "$(dirname "$0")/.."

budget=${1:-600}
shift || true
case "$budget" in
  *runs) limit="-runs=${budget%runs}" ;;
  *[!0-9]*|"") echo "usage: $0 [SECONDS|Nruns] [TARGET...]" >&2; exit 2 ;;
  *) limit="-max_total_time=$budget" ;;
esac

cmake --preset linux-fuzz >/dev/null
cmake --build --preset linux-fuzz -j "${FUZZ_BUILD_JOBS:-2}"

build=build/linux-fuzz
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for source in fuzz/*_fuzz.cpp; do
    name=$(basename "$source" _fuzz.cpp)
    targets+=("$name")
  done
fi

mkdir -p "$build/findings"
# Leaks in a fuzz target count as findings; a slow input (10 s) is one too. The targets' own
# standard output (the program's log lines) is closed: only libFuzzer's report matters.
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:print_stacktrace=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
# Targets that read files write their input to a scratch file; memory is much faster than disk.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi

status=0
for name in "${targets[@]}"; do
  binary="$build/fuzz/${name}_fuzz"
  seeds="fuzz/corpus/$name"
  work="${FUZZ_WORK:-$build/corpus}/$name"
  if [ ! -x "$binary" ]; then echo "no fuzz target $name" >&2; status=1; continue; fi
  if [ "${FUZZ_FRESH:-0}" = 1 ]; then rm -rf "$work"; fi
  mkdir -p "$work"
  [ -d "$seeds" ] || seeds=""
  echo "== fuzz $name ($budget)"
  started=$SECONDS
  # shellcheck disable=SC2086
  if "$binary" "$limit" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -close_fd_mask=1 \
       -artifact_prefix="$build/findings/$name-" ${FUZZ_ARGS:-} "$work" $seeds \
       >"$build/fuzz-$name.log" 2>&1; then
    echo "   $name: clean after $((SECONDS - started)) s, $(grep -a -m1 -o 'stat::number_of_executed_units: *[0-9]*' "$build/fuzz-$name.log" | grep -o '[0-9]*$') runs"
  else
    echo "   $name: FAILED, see $build/fuzz-$name.log and $build/findings/"
    tail -n 40 "$build/fuzz-$name.log"
    status=1
  fi
done
exit $status
