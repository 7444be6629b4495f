#include "web/status_page.h"

#include <optional>

#include "http/headers.h"
#include "http/service_health.h"
#include "p2p/gateway.h"
#include "shell/util.h"
#include "shell/version.h"
#include "web/guard.h"

namespace zq {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view kRoot = "/sarnlink";

Json endpoint_text(const Endpoint& endpoint) {
    if (!endpoint.usable()) return nullptr;
    return endpoint.text();
}

Json service_json(web::Host& host, double now) {
    Json service{{"url", host.config().velmar_server}, {"reachable", nullptr}, {"last_call", nullptr}};
    if (std::optional<ServiceCall> call = last_service_call()) {
        // A 5xx is the service's own trouble, so it does not count as reached.
        bool reached = call->error.empty() && call->status >= 200 && call->status <= 499;
        service["reachable"] = reached;
        service["last_call"] = Json{{"path", call->path},
                                    {"result", call->error.empty() ? format_text("HTTP %d", call->status) : call->error},
                                    {"seconds_ago", now - call->finished},
                                    {"took_ms", static_cast<std::int64_t>(call->seconds * 1000.0)}};
    }
    return service;
}

// Names are whatever bytes a game or another player chose; the page shows them, escapes and
// all, and the JSON encoder takes nothing but UTF-8.
Json session_json(const SessionStatus& session) {
    Json row{{"name", printable(session.name)}, {"logged_in", session.logged_in}, {"room", nullptr}};
    if (session.room_id == 0) return row;
    Json members = Json::array();
    for (const auto& [id, name] : session.members)
        members.push_back(Json{{"member_id", id},
                               {"name", printable(name)},
                               {"owner", id == session.owner_member_id},
                               {"us", id == session.member_id}});
    row["room"] = Json{{"id", session.room_id}, {"max_members", session.max_members}, {"members", members}};
    return row;
}

// A direct route while our router forwards our port for us owes it to that mapping as much as
// to punching.
const char* route_of(const p2p::LinkInfo& link, bool port_mapped) {
    if (link.on_relay) return "relay";
    if (!link.peer_heard) return "not heard yet";
    if (link.heard_on_lan) return "LAN";
    return port_mapped ? "direct (port mapping)" : "direct";
}

http::ServerResponse with_page_headers(http::ServerResponse response) {
    response.headers.emplace_back("Cache-Control", "no-store");
    response.headers.emplace_back("X-Content-Type-Options", "nosniff");
    response.headers.emplace_back("X-Frame-Options", "DENY");
    response.headers.emplace_back("Referrer-Policy", "no-referrer");
    return response;
}

}  // namespace

bool is_status_page_path(std::string_view path) {
    return path == kRoot || (path.starts_with(kRoot) && path[kRoot.size()] == '/');
}

bool status_page_caller_allowed(const http::ServerRequest& request) {
    if (!web::is_loopback_ipv4(request.peer.host)) return false;
    if (!web::loopback_host(http::find_header(request.headers, "Host"))) return false;
    // A page of another site may send a request here but must never read the answer.
    std::string site = http::find_header(request.headers, "Sec-Fetch-Site");
    if (!site.empty() && site != "same-origin" && site != "none") return false;
    std::string origin = http::find_header(request.headers, "Origin");
    if (origin.empty()) return true;
    if (!origin.starts_with("http://")) return false;
    return web::loopback_host(std::string_view(origin).substr(7));
}

Json status_snapshot(web::Host& host, double now) {
    Json session_rows = Json::array();
    for (const SessionStatus& session : host.session_rows()) session_rows.push_back(session_json(session));

    Json gateway = nullptr;
    Json peers = Json::array();
    if (p2p::Gateway* g = host.gateway()) {
        std::optional<Endpoint> mapped = g->mapped_address();
        std::optional<p2p::PortMappingInfo> mapping = g->port_mapping_info();
        Json mapping_json = nullptr;
        if (mapping)
            mapping_json = Json{{"protocol", p2p::protocol_name(mapping->protocol)},
                                {"external", mapping->external.text()},
                                {"lifetime", mapping->lifetime},
                                {"granted_ago", now - mapping->granted},
                                {"used", mapping->used},
                                {"unused_because", mapping->unused_because}};
        const bool port_mapped = mapping && mapping->used;
        gateway = Json{{"port", g->port},
                       {"lan", g->own_endpoints().first.text()},
                       {"mapped", mapped ? Json(mapped->text()) : Json(nullptr)},
                       {"relay_port", g->relay_port()},
                       {"port_mapping", mapping_json}};
        for (const p2p::LinkInfo& link : g->links_snapshot())
            peers.push_back(Json{{"member_id", link.member_id},
                                 {"name", printable(link.online_id)},
                                 {"route", route_of(link, port_mapped)},
                                 {"address", endpoint_text(link.endpoint)},
                                 {"lan_address", endpoint_text(link.local_endpoint)},
                                 {"to_peer", link.to_peer},
                                 {"to_port", link.to_port},
                                 {"last_heard_ago", link.last_heard > 0.0 ? Json(now - link.last_heard) : Json(nullptr)}});
    }
    const web::Ports ports = host.ports();
    return Json{{"version", kVersion},
                {"service", service_json(host, now)},
                {"listening", Json{{"tcp", ports.tcp}, {"udp", ports.udp}, {"webapi", ports.webapi}}},
                {"sessions", session_rows},
                {"gateway", gateway},
                {"peers", peers}};
}

http::ServerResponse status_page_handler(web::Host& host, const http::ServerRequest& request, const std::string& path) {
    if (!status_page_caller_allowed(request))
        return with_page_headers(
            http::json_response(Json{{"error", "the status page answers only a browser on this PC"}}, 403));
    if (request.method != "GET" && request.method != "HEAD")
        return with_page_headers(http::json_response(Json{{"error", "only GET"}}, 405));
    if (path == "/sarnlink/status.json")
        return with_page_headers(http::json_response(status_snapshot(host, steady_seconds()), 200));
    if (path == "/sarnlink" || path == "/sarnlink/") {
        http::ServerResponse page;
        page.body = std::string(status_page_html());
        page.headers.emplace_back("Content-Type", "text/html; charset=utf-8");
        // Nothing but the page's own script and its one JSON route.
        page.headers.emplace_back("Content-Security-Policy",
                                  "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
                                  "connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; "
                                  "frame-ancestors 'none'");
        return with_page_headers(std::move(page));
    }
    return with_page_headers(http::json_response(Json{{"error", "not found"}}, 404));
}

}  // namespace zq
