#include "shell/config.h"

#include <string>

#include "shell/deployment.h"
#include "shell/util.h"
#include "shell/version.h"

namespace zq {

namespace {

std::string service_url(const char* port_suffix) { return std::string("https://") + kServiceHost + port_suffix; }

void read_number(const nlohmann::json& doc, const char* key, double& into) {
    if (json_has(doc, key) && doc.at(key).is_number()) into = doc.at(key).get<double>();
}

bool read_flag(const nlohmann::json& doc, const char* key, bool fallback) {
    return json_int(doc, key, fallback ? 1 : 0) != 0;
}

}  // namespace

Config::Config()
    : velmar_server(service_url(":18671")),
      auth_server(service_url("")),
      community_server(service_url(":18671")),
      game_proxy_routes{{31316, service_url(":20443")}, {31317, service_url(":18671")}},
      user_agent(std::string("sarnlink/") + kVersion) {}

Config config_from_json(const nlohmann::json& doc) {
    Config c;
    c.velmar_server = json_text(doc, "velmar_server", c.velmar_server);
    c.auth_server = json_text(doc, "auth_server", c.auth_server);
    c.community_server = json_text(doc, "community_server", c.community_server);
    c.bind_host = json_text(doc, "bind_host", c.bind_host);
    c.tcp_port = static_cast<std::int32_t>(json_int(doc, "tcp_port", c.tcp_port));
    c.udp_port = static_cast<std::int32_t>(json_int(doc, "udp_port", c.udp_port));
    c.webapi_port = static_cast<std::int32_t>(json_int(doc, "webapi_port", c.webapi_port));
    c.p2p_gateway = read_flag(doc, "p2p_gateway", true);
    c.p2p_port = static_cast<std::int32_t>(json_int(doc, "p2p_port", c.p2p_port));
    c.port_p2p_port = static_cast<std::int32_t>(json_int(doc, "port_p2p_port", c.port_p2p_port));
    c.stun_server = json_text(doc, "stun_server", c.stun_server);
    c.local_addr = json_text(doc, "local_addr", c.local_addr);
    read_number(doc, "poll_interval", c.poll_interval);
    c.state_file = json_text(doc, "state_file", c.state_file);
    c.trace = read_flag(doc, "trace", false);
    c.debug_endpoints = read_flag(doc, "debug_endpoints", false);
    c.create_accounts = read_flag(doc, "create_accounts", false);
    read_number(doc, "stun_refresh", c.stun_refresh);
    if (json_has(doc, "game_proxy_routes") && doc.at("game_proxy_routes").is_object()) {
        // A hand-edited routing table with a hole in it is worse than stopping: bad keys
        // (std::stoi) and non-text values (get<std::string>) throw, and nobody catches them.
        c.game_proxy_routes.clear();
        for (const auto& [key, value] : doc.at("game_proxy_routes").items()) {
            std::string url = value.get<std::string>();
            c.game_proxy_routes[std::stoi(key, nullptr, 10)] = url;
        }
    }
    c.user_agent = json_text(doc, "user_agent", c.user_agent);
    return c;
}

}  // namespace zq
