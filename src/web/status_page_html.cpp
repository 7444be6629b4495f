// The status page: one file, no outside assets, refreshed once a second from status.json. Every
// text from the network (names, addresses) goes in through textContent, never as markup.

#include "web/status_page.h"

namespace zq {

std::string_view status_page_html() {
    return R"PAGE(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>sarnlink status</title>
<style>
  :root { --bg:#15171c; --card:#1f232b; --line:#2e3440; --text:#e6e8ee; --dim:#9aa3b2;
          --good:#4cc38a; --warn:#e8b04a; --bad:#e5534b; }
  * { box-sizing: border-box; }
  body { margin:0; background:var(--bg); color:var(--text);
         font:15px/1.45 system-ui, "Segoe UI", sans-serif; }
  header { padding:14px 22px; border-bottom:1px solid var(--line); display:flex;
           align-items:baseline; gap:14px; }
  header h1 { font-size:19px; margin:0; }
  header .dim { font-size:13px; }
  main { padding:16px 22px; display:grid; gap:16px;
         grid-template-columns:repeat(auto-fit, minmax(330px, 1fr)); }
  section { background:var(--card); border:1px solid var(--line); border-radius:8px; padding:12px 16px; }
  section.wide { grid-column:1 / -1; }
  h2 { font-size:13px; text-transform:uppercase; letter-spacing:.06em; color:var(--dim); margin:0 0 8px; }
  table { width:100%; border-collapse:collapse; }
  th, td { text-align:left; padding:4px 8px 4px 0; border-bottom:1px solid var(--line);
           white-space:nowrap; }
  th { color:var(--dim); font-weight:normal; font-size:13px; }
  td.num, th.num { text-align:right; padding-right:18px; font-variant-numeric:tabular-nums; }
  .dim { color:var(--dim); }
  .dot { display:inline-block; width:10px; height:10px; border-radius:50%; margin-right:7px;
         background:var(--dim); }
  .good .dot, .dot.good { background:var(--good); }
  .warn .dot, .dot.warn { background:var(--warn); }
  .bad .dot, .dot.bad { background:var(--bad); }
  .big { font-size:18px; }
  dl { display:grid; grid-template-columns:max-content 1fr; gap:3px 14px; margin:0; }
  dt { color:var(--dim); }
  dd { margin:0; font-variant-numeric:tabular-nums; }
  .tag { font-size:12px; padding:1px 7px; border-radius:9px; border:1px solid var(--line); margin-left:6px;
         color:var(--dim); }
  #stale { color:var(--bad); display:none; }
</style>
</head>
<body>
<header><h1>sarnlink</h1><span class="dim" id="version"></span><span id="stale">no answer from sarnlink</span></header>
<main>
  <section>
    <h2>Community service</h2>
    <div class="big" id="service"><span class="dot"></span><span id="service-text">checking</span></div>
    <dl id="service-detail"></dl>
  </section>
  <section>
    <h2>This PC</h2>
    <dl id="own"></dl>
  </section>
  <section>
    <h2>Players signed in</h2>
    <div id="sessions"></div>
  </section>
  <section>
    <h2>Room</h2>
    <div id="room"></div>
  </section>
  <section class="wide">
    <h2>Other players</h2>
    <div id="peers"></div>
  </section>
</main>
<script>
"use strict";
function el(tag, text, cls) {
  const e = document.createElement(tag);
  if (text !== undefined && text !== null) e.textContent = String(text);
  if (cls) e.className = cls;
  return e;
}
function ago(seconds) {
  if (seconds === null || seconds === undefined) return "never";
  if (seconds < 1.5) return "just now";
  if (seconds < 90) return Math.round(seconds) + " s ago";
  if (seconds < 5400) return Math.round(seconds / 60) + " min ago";
  return Math.round(seconds / 3600) + " h ago";
}
function pairs(dl, rows) {
  dl.replaceChildren();
  for (const [k, v] of rows) { dl.append(el("dt", k), el("dd", v)); }
}
function table(columns, rows) {
  const t = el("table"), head = el("tr");
  columns.forEach((c, i) => head.append(el("th", c, rows.length && typeof rows[0][i] === "number" ? "num" : "")));
  t.append(head);
  for (const r of rows) {
    const tr = el("tr");
    r.forEach((cell, i) => {
      const td = cell instanceof Node ? el("td") : el("td", cell);
      if (cell instanceof Node) td.append(cell);
      if (typeof cell === "number") td.className = "num";
      tr.append(td);
    });
    t.append(tr);
  }
  return t;
}
function dotted(text, kind) {
  const s = el("span", null, kind); s.append(el("span", null, "dot"), el("span", text)); return s;
}
function render(s) {
  document.getElementById("version").textContent = "version " + s.version;
  const svc = s.service, box = document.getElementById("service");
  box.className = "big " + (svc.reachable === null ? "" : svc.reachable ? "good" : "bad");
  document.getElementById("service-text").textContent =
    svc.reachable === null ? "not called yet" : svc.reachable ? "reachable" : "not reachable";
  const detail = [["service", svc.url]];
  if (svc.last_call) {
    detail.push(["last call", svc.last_call.path]);
    detail.push(["result", svc.last_call.result + " in " + svc.last_call.took_ms + " ms"]);
    detail.push(["when", ago(svc.last_call.seconds_ago)]);
  }
  pairs(document.getElementById("service-detail"), detail);

  const own = [["game port", "tcp " + s.listening.tcp + ", udp " + s.listening.udp],
               ["web API", "tcp " + s.listening.webapi]];
  if (s.gateway) {
    own.push(["player traffic", "udp " + s.gateway.port + " (LAN " + s.gateway.lan + ")"]);
    own.push(["seen from outside", s.gateway.mapped || "not known yet"]);
    own.push(["relay port", s.gateway.relay_port ? String(s.gateway.relay_port) : "relay off"]);
    const pm = s.gateway.port_mapping;
    own.push(["port mapping", !pm ? "none" :
      pm.protocol + " " + pm.external + (pm.lifetime ? " for " + pm.lifetime + " s" : ", permanent") +
      (pm.used ? "" : " (not used: " + pm.unused_because + ")")]);
  } else {
    own.push(["player traffic", "gateway off"]);
  }
  pairs(document.getElementById("own"), own);

  const sessions = document.getElementById("sessions");
  sessions.replaceChildren();
  if (!s.sessions.length) sessions.append(el("div", "No game connected.", "dim"));
  for (const x of s.sessions) {
    const line = el("div");
    line.append(dotted(x.name || "(not signed in)", x.logged_in ? "good" : "warn"));
    sessions.append(line);
  }

  const room = document.getElementById("room");
  room.replaceChildren();
  const inRoom = s.sessions.filter(x => x.room);
  if (!inRoom.length) room.append(el("div", "Not in a room.", "dim"));
  for (const x of inRoom) {
    room.append(el("div", "Room " + x.room.id + " (" + x.room.members.length + " of " + x.room.max_members + ")"));
    room.append(table(["member", "name", ""], x.room.members.map(m =>
      [m.member_id, m.name, (m.owner ? "owner " : "") + (m.us ? "you" : "")])));
  }

  const peers = document.getElementById("peers");
  peers.replaceChildren();
  if (!s.gateway) peers.append(el("div", "The gateway is off in the settings.", "dim"));
  else if (!s.peers.length) peers.append(el("div", "No other players yet.", "dim"));
  else peers.append(table(["member", "name", "route", "address", "sent", "received", "last heard"],
    s.peers.map(p => [p.member_id, p.name,
                      dotted(p.route, p.route === "not heard yet" ? "warn" :
                                      (p.last_heard_ago !== null && p.last_heard_ago > 10) ? "bad" : "good"),
                      p.address || "unknown", p.to_peer, p.to_port, ago(p.last_heard_ago)])));
}
async function refresh() {
  try {
    const r = await fetch("status.json", { cache: "no-store" });
    if (!r.ok) throw new Error(String(r.status));
    render(await r.json());
    document.getElementById("stale").style.display = "none";
  } catch (e) {
    document.getElementById("stale").style.display = "inline";
  }
}
refresh();
setInterval(refresh, 1000);
</script>
</body>
</html>
)PAGE";
}

}  // namespace zq
