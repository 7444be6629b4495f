#!/usr/bin/env bash
# Runs the NAT lab's matrix (tests/road/nat_test.cpp, as root: it builds network namespaces)
# and prints it as a Markdown table: for each pair of home networks, the way each player's
# bridge reaches the other, the one-way delay each way with 20 ms on each home's line, what
# the way adds beyond those 40 ms, and how many game datagrams arrived of those sent while the
# lab dropped 5 % on each router.
#
#   scripts/nat-matrix.sh [BUILD_DIR]      (default build/linux-debug, built here if needed)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/linux-debug}
if [ "$build" = build/linux-debug ]; then
  cmake --preset linux-debug >/dev/null
  cmake --build --preset linux-debug --target road_tests -j 2 >/dev/null
fi
out=$(mktemp)
trap 'rm -f "$out"' EXIT
status=0
"$build/tests/road_tests" --gtest_filter='Nat/NatMatrix.*' >"$out" 2>&1 || status=$?
if grep -q '^\[  SKIPPED \]' "$out" && ! grep -q '^nat-matrix:' "$out"; then
  grep -m1 -A1 'Skipped' "$out" >&2 || true
  echo "the NAT lab could not run here (it needs root, ip, nft and conntrack)" >&2
  exit 1
fi
echo "| Player A's home | Player B's home | Way (A / B) | One-way ms (A to B / B to A) | Added by the way, ms | Game datagrams delivered |"
echo "|---|---|---|---|---|---|"
sed -n 's/^nat-matrix: \(.*\)$/| \1 |/p' "$out"
if [ "$status" -ne 0 ]; then
  echo >&2
  grep -E '^\[  FAILED  \]' "$out" | sort -u >&2
  exit "$status"
fi
