#include "shell/config.h"

#include <fstream>
#include <sstream>
#include <string>

#include "shell/deployment.h"
#include "shell/net.h"
#include "shell/util.h"
#include "shell/version.h"

namespace zq {

namespace {

std::string service_url(const char* port_suffix) { return std::string("https://") + kServiceHost + port_suffix; }

void read_number(const nlohmann::json& doc, const char* key, double& into) {
    if (json_has(doc, key) && doc.at(key).is_number()) into = doc.at(key).get<double>();
}

std::string in_quotes(const std::string& text) { return "\"" + text + "\""; }

bool read_flag(const nlohmann::json& doc, const char* key, bool fallback) {
    return json_int(doc, key, fallback ? 1 : 0) != 0;
}

// Read as leniently as any number, but refused outside 0..65535 instead of cut to 16 bits, which
// would listen on a port that nobody asked for. 0 lets the system choose (for port_p2p_port: no
// address known).
bool read_port(const nlohmann::json& doc, const char* key, std::int32_t& port, std::string& problem) {
    const std::int64_t value = json_int(doc, key, port);
    if (value < 0 || value > 65535) {
        problem = format_text("%s %lld is not a port from 0 to 65535", key, static_cast<long long>(value));
        return false;
    }
    port = static_cast<std::int32_t>(value);
    return true;
}

}  // namespace

Config::Config()
    : velmar_server(service_url(":18671")),
      auth_server(service_url("")),
      community_server(service_url(":18671")),
      game_proxy_routes{{31316, service_url(":20443")}, {31317, service_url(":18671")}},
      user_agent(std::string("sarnlink/") + kVersion) {}

bool config_from_json(const nlohmann::json& doc, Config& config, std::string& problem) {
    Config c;
    c.velmar_server = json_text(doc, "velmar_server", c.velmar_server);
    c.auth_server = json_text(doc, "auth_server", c.auth_server);
    c.community_server = json_text(doc, "community_server", c.community_server);
    c.bind_host = json_text(doc, "bind_host", c.bind_host);
    if (!read_port(doc, "tcp_port", c.tcp_port, problem) || !read_port(doc, "udp_port", c.udp_port, problem) ||
        !read_port(doc, "webapi_port", c.webapi_port, problem))
        return false;
    c.p2p_gateway = read_flag(doc, "p2p_gateway", true);
    if (!read_port(doc, "p2p_port", c.p2p_port, problem) || !read_port(doc, "port_p2p_port", c.port_p2p_port, problem))
        return false;
    c.stun_server = json_text(doc, "stun_server", c.stun_server);
    c.local_addr = json_text(doc, "local_addr", c.local_addr);
    read_number(doc, "poll_interval", c.poll_interval);
    c.state_file = json_text(doc, "state_file", c.state_file);
    c.trace = read_flag(doc, "trace", false);
    c.debug_endpoints = read_flag(doc, "debug_endpoints", false);
    c.create_accounts = read_flag(doc, "create_accounts", false);
    read_number(doc, "stun_refresh", c.stun_refresh);
    c.port_mapping = read_flag(doc, "port_mapping", true);
    read_number(doc, "p2p_keepalive", c.p2p_keepalive);
    if (json_has(doc, "game_proxy_routes") && doc.at("game_proxy_routes").is_object()) {
        // A hand-edited routing table with a hole in it is worse than not starting, so unlike
        // every other key a bad entry is not forgiven.
        c.game_proxy_routes.clear();
        for (const auto& [key, value] : doc.at("game_proxy_routes").items()) {
            std::optional<std::int64_t> port = leading_int64(key);
            if (!port) {
                problem = format_text("game_proxy_routes key %s is not a port number", in_quotes(key).c_str());
                return false;
            }
            if (*port < 0 || *port > 65535) {
                problem = format_text("game_proxy_routes key %s is not a port from 0 to 65535", in_quotes(key).c_str());
                return false;
            }
            if (!value.is_string()) {
                problem = format_text("game_proxy_routes value for %s is not a URL text", in_quotes(key).c_str());
                return false;
            }
            c.game_proxy_routes[static_cast<std::int32_t>(*port)] = value.get<std::string>();
        }
    }
    c.user_agent = json_text(doc, "user_agent", c.user_agent);
    c.share_account_with_network = read_flag(doc, "share_account_with_network", false);
    config = std::move(c);
    return true;
}

bool load_config_file(const std::filesystem::path& path, const std::string& name, Config& config,
                      std::string& message, bool* opened) {
    nlohmann::json doc;  // null: every key takes its default
    std::ifstream in(path, std::ios::binary);
    if (opened) *opened = static_cast<bool>(in);
    if (in) {
        std::stringstream text;
        text << in.rdbuf();
        doc = nlohmann::json::parse(text.str(), nullptr, false, false);
        if (doc.is_discarded()) {
            message = format_text("config %s is not valid JSON", name.c_str());
            return false;
        }
    }
    std::string problem;
    if (!config_from_json(doc, config, problem)) {
        message = format_text("config %s: %s", name.c_str(), problem.c_str());
        return false;
    }
    return true;
}

bool settle_bridge_config(Config& config, std::string& problem) {
    // Binding a name would leave the address all zero, which listens on every interface; a
    // name is taken for the address it stands for, and text that is none is refused.
    std::string dotted = config.bind_host.empty() ? std::string() : resolve_ipv4(config.bind_host);
    if (dotted.empty()) {
        problem = format_text("bind_host %s is not an IPv4 address, and no IPv4 address was found for that name",
                              in_quotes(config.bind_host).c_str());
        return false;
    }
    config.bind_host = dotted;

    const std::string& stun = config.stun_server;
    std::size_t colon = stun.find(':');
    if (stun == "off" || colon == std::string::npos) return true;
    if (colon == 0) {
        problem = format_text("stun_server %s has no host before the colon", in_quotes(stun).c_str());
        return false;
    }
    std::string port = stun.substr(colon + 1);
    std::optional<std::int64_t> number = leading_int64(port);
    bool digits_only = !port.empty() && port.find_first_not_of("0123456789") == std::string::npos;
    if (!digits_only || !number || *number < 1 || *number > 65535) {
        problem = format_text("stun_server %s has no port from 1 to 65535 after the colon", in_quotes(stun).c_str());
        return false;
    }
    return true;
}

std::optional<Endpoint> pick_stun_server(const Config& config) {
    const std::string& stun = config.stun_server;
    if (stun == "off") return std::nullopt;
    if (!stun.empty()) {
        auto colon = stun.find(':');
        if (colon == std::string::npos) return Endpoint{stun, 3478};
        return Endpoint{stun.substr(0, colon), std::stoi(stun.substr(colon + 1))};
    }
    std::string rest = config.velmar_server;
    auto scheme = rest.find("://");
    if (scheme != std::string::npos) rest = rest.substr(scheme + 3);
    rest = rest.substr(0, rest.find_first_of(":/"));
    if (rest.empty()) return std::nullopt;
    return Endpoint{rest, 3478};
}

}  // namespace zq
