#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo of the whole road on this machine's
# loopback: the stand-in of The Ember Court, two bridges (sarnlink-cli, each with its own
# settings and state) and two simulated players, one behind each bridge. The players log in,
# one creates a room, the other joins, they exchange numbered datagrams through the two
# gateways, and one leaves. It ends by itself with a one-line verdict; exit code 0 means PASS.
#
# With arguments it runs one real bridge instead, for a real game: the arguments go to
# sarnlink-cli (e.g. scripts/run-bridge.sh --config sarnlink_config.json); Ctrl-C stops it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset linux-release >/dev/null
bin=build/linux-release
if [ $# -gt 0 ]; then
  cmake --build --preset linux-release --target sarnlink-cli -j 2
  exec "$bin/sarnlink-cli" "$@"
fi
cmake --build --preset linux-release --target sarnlink-cli ember_standin sim_player -j 2 >/dev/null

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

# Free loopback ports for the two bridges: tcp, udp and web API each.
read -r -a ports < <(python3 - <<'PY'
import socket
held = []
for kind in [socket.SOCK_STREAM, socket.SOCK_DGRAM, socket.SOCK_STREAM] * 2:
    s = socket.socket(socket.AF_INET, kind)
    s.bind(("127.0.0.1", 0))
    held.append(s)
print(" ".join(str(s.getsockname()[1]) for s in held))
PY
)

# The relay gets its own loopback address: a gateway sends everything for the relay's host
# through the relay, which would swallow the direct traffic between two bridges on 127.0.0.1.
"$bin/ember_standin" --http-port 0 --stun-host 127.0.0.2 --stun-port 0 --ready-file "$work/standin.ready" --seconds 120 &
pids+=($!)
for _ in $(seq 100); do [ -s "$work/standin.ready" ] && break; sleep 0.1; done
read -r http_port stun_port < "$work/standin.ready"
service="http://127.0.0.1:$http_port"

for i in 0 1; do
  dir="$work/bridge$((i + 1))"
  mkdir -p "$dir"
  cat > "$dir/sarnlink_config.json" <<JSON
{
  "velmar_server": "$service", "auth_server": "$service", "community_server": "$service",
  "stun_server": "127.0.0.2:$stun_port", "local_addr": "127.0.0.1", "stun_refresh": 1, "port_mapping": 0,
  "tcp_port": ${ports[$((i * 3))]}, "udp_port": ${ports[$((i * 3 + 1))]}, "webapi_port": ${ports[$((i * 3 + 2))]},
  "game_proxy_routes": {}, "create_accounts": 1, "poll_interval": 0.2,
  "state_file": "$dir/sarnlink_state.json"
}
JSON
  (cd "$dir" && exec "$OLDPWD/$bin/sarnlink-cli" --config sarnlink_config.json) &
  pids+=($!)
done

# Each bridge is up once its command port takes a connection.
for port in "${ports[0]}" "${ports[3]}"; do
  for _ in $(seq 100); do
    python3 -c "import socket,sys; socket.create_connection(('127.0.0.1', $port), 0.2)" 2>/dev/null && break
    sleep 0.1
  done
done

"$bin/sim_player" --bridge "${ports[0]}" "${ports[1]}" --bridge "${ports[3]}" "${ports[4]}" --frames 100
