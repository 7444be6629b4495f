#!/usr/bin/env bash
# The Windows program under Wine: it starts, its web API answers, and Ctrl-C stops it in order
# with exit code 0. Wine turns the SIGINT a terminal sends into the console's Ctrl-C event, which
# a Windows parent cannot send to a child under Wine; so this runs from the Linux side.
#
#   wine_ctrl_c.sh path/to/sarnlink-cli.exe
set -uo pipefail
exe=$(realpath "$1")
dir=$(mktemp -d)
pid=""
cleanup() {
  [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
  rm -rf "$dir"
}
trap cleanup EXIT
fail() { echo "FAILED: $*"; echo "--- output"; cat "$dir/out" 2>/dev/null; exit 1; }

echo '{"tcp_port":0,"udp_port":0,"webapi_port":0,"p2p_gateway":0,"game_proxy_routes":{}}' \
  > "$dir/sarnlink_config.json"
cd "$dir"
WINEDEBUG=-all wine "$exe" > "$dir/out" 2>&1 &
pid=$!

# Wine's first start in a fresh prefix takes a while.
for _ in $(seq 1200); do
  grep -q "community server: " "$dir/out" && break
  kill -0 "$pid" 2>/dev/null || fail "the program ended before it was ready"
  sleep 0.1
done
grep -q "community server: " "$dir/out" || fail "no start lines within two minutes"

web=$(sed -n 's/.*listening: tcp :[0-9]*  stun :[0-9]*  webapi :\([0-9]*\).*/\1/p' "$dir/out")
[ -n "$web" ] || fail "no web API port in the start lines"
answer=$(curl -s --max-time 20 "http://127.0.0.1:$web/nothing-here")
[[ "$answer" == *'"ResKind"'* ]] || fail "web API answered '$answer'"

kill -INT "$pid"
wait "$pid"
rc=$?
pid=""
[ "$rc" -eq 0 ] || fail "exit code $rc after Ctrl-C"
grep -q "\[sarnlink\] stopping" "$dir/out" || fail "no 'stopping' line"
echo "stopped in order on Ctrl-C"
