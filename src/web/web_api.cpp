#include "web/web_api.h"

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "p2p/gateway.h"
#include "shell/log.h"
#include "shell/util.h"
#include "shell/version.h"
#include "web/guard.h"
#include "web/paths.h"
#include "web/status_page.h"
#include "web/summon_proxy.h"

namespace zq {

namespace {

using Json = nlohmann::ordered_json;

Json endpoint_json(const Endpoint& endpoint) { return Json::array({endpoint.host, endpoint.port}); }

// [host, port] with a text and a number; anything else is the empty endpoint.
Endpoint endpoint_member(const nlohmann::json& body, const char* key) {
    if (!json_has(body, key)) return {};
    const nlohmann::json& value = body.at(key);
    if (!value.is_array() || value.size() != 2 || !value[0].is_string() || !value[1].is_number()) return {};
    nlohmann::json port = {{"port", value[1]}};
    return Endpoint{value[0].get<std::string>(), static_cast<std::int32_t>(json_int(port, "port", 0))};
}

Json debug_state(web::Host& host) {
    Json registry = Json::object();
    for (const auto& [online_id, endpoint] : host.stun_table()) registry[online_id] = endpoint_json(endpoint);
    const nlohmann::json advertisement = host.advertisement();
    p2p::Gateway* gateway = host.gateway();
    Json mapped = nullptr;
    Json peers = Json::array();
    if (gateway) {
        if (auto address = gateway->mapped_address()) mapped = endpoint_json(*address);
        for (const p2p::LinkInfo& link : gateway->links_snapshot())
            peers.push_back(Json{{"member_id", link.member_id},
                                 {"online_id", link.online_id},
                                 {"inner", endpoint_json(link.port_sees)},
                                 {"peer_member_id", link.peer_member},
                                 {"port_member_id", link.port_member},
                                 {"room_id", link.room_id}});
    }
    return Json{{"registry", registry},
                {"last_advertisement", advertisement},
                {"gateway", gateway != nullptr},
                {"mapped", mapped},
                {"relay_port", gateway ? gateway->relay_port() : 0},
                {"peers", peers}};
}

// A debugging route: whatever the body lacks is taken as empty, and there is no error answer.
Json debug_add_peer(p2p::Gateway& gateway, const std::string& text) {
    nlohmann::json body = nlohmann::json::parse(text, nullptr, false);
    std::optional<Endpoint> port_endpoint;
    Endpoint port_listens = endpoint_member(body, "port_endpoint");
    if (port_listens.usable()) port_endpoint = port_listens;
    Endpoint inner = gateway.add_member(static_cast<std::int32_t>(json_int(body, "member_id", 0)),
                                        json_text(body, "online_id", ""), endpoint_member(body, "endpoint"),
                                        endpoint_member(body, "local_endpoint"),
                                        json_text(body, "port_online_id", ""),
                                        static_cast<std::int32_t>(json_int(body, "port_member_id", 0)),
                                        static_cast<std::uint64_t>(json_int(body, "room_id", 0)), port_endpoint);
    return Json{{"inner", endpoint_json(inner)}};
}

bool is_user_route(const std::vector<std::string>& segments) {
    return segments.size() == 4 && segments[0] == "v1" && segments[1] == "users";
}

}  // namespace

http::ServerResponse web_api_handler(web::Host& host, const http::ServerRequest& request) {
    const std::string& method = request.method;
    const std::string path = web::path_without_query(request.path);
    const std::vector<std::string> segments = web::path_segments(path);
    const bool debug = host.config().debug_endpoints;
    // The player's own page is for browsers, which the game's routes refuse; it checks its callers itself.
    if (is_status_page_path(path)) return status_page_handler(host, request, path);

    if (const std::string why = web::foreign_caller(request, host.config().bind_host); !why.empty()) {
        const std::string cause = format_text("webapi refused :%d ", host.ports().webapi) +
                                  why.substr(0, why.find(' '));
        log_limited(cause, format_text("webapi: refused %s %s (%s)",
                                       printable(method, web::stranger_text_limit).c_str(),
                                       printable(path, web::stranger_text_limit).c_str(), why.c_str()));
        return http::json_response(Json{{"ResKind", 1}, {"Message", "forbidden"}}, 403);
    }

    if (method == "GET" && path == "/status") {
        // The same text every time: made once.
        static const http::ServerResponse status =
            http::json_response(Json{{"ok", true}, {"bridge", "sarnlink"}, {"version", kVersion}}, 200);
        return status;
    }

    if (debug && method == "GET" && path == "/debug/state") return http::json_response(debug_state(host), 200);

    if (debug && method == "POST" && path == "/debug/add_peer") {
        if (p2p::Gateway* gateway = host.gateway())
            return http::json_response(debug_add_peer(*gateway, request.body), 200);
    }

    if (debug && method == "POST" && path == "/debug/remove_peer") {
        if (p2p::Gateway* gateway = host.gateway()) {
            nlohmann::json body = nlohmann::json::parse(request.body, nullptr, false);
            gateway->remove_member(static_cast<std::int32_t>(json_int(body, "member_id", 0)));
            return http::json_response(Json::object(), 200);
        }
    }

    // The three lists share one answer, keyed by the route's own last segment.
    if (method == "GET" && is_user_route(segments) &&
        (segments[3] == "friendList" || segments[3] == "blockList" || segments[3] == "blockingUsers"))
        return http::json_response(Json{{segments[3], Json::array()},
                                        {"start", web::query_offset(request.path)},
                                        {"size", 0},
                                        {"totalResults", 0}},
                                   200);

    // The game's posts to its feed are taken and dropped.
    if (method == "POST" && is_user_route(segments) && segments[3] == "feed")
        return http::json_response(Json::object(), 201);

    if (method == "POST" && path.starts_with("/summon_messenger/")) return summon_handler(host, request);

    // Anyone on the machine can ask for paths at will: a few lines show it, thousands would bury the log.
    log_limited("webapi not handled", format_text("webapi: %s %s not handled (404)", method.c_str(), path.c_str()));
    return http::json_response(Json{{"ResKind", 1}, {"Message", "not found"}}, 404);
}

}  // namespace zq
