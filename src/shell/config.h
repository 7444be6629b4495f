#pragma once
// The settings of the process, read once from the JSON configuration file.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "shell/util.h"

namespace zq {

struct Config {
    std::string velmar_server;
    std::string auth_server;
    std::string community_server;
    std::string bind_host = "127.0.0.1";
    std::int32_t tcp_port = 31313;
    std::int32_t udp_port = 31314;
    std::int32_t webapi_port = 31315;
    bool p2p_gateway = true;
    std::int32_t p2p_port = 0;
    std::int32_t port_p2p_port = 3658;
    std::string stun_server;
    std::string local_addr;
    double poll_interval = 0.4;
    std::string state_file = "sarnlink_state.json";
    bool trace = false;
    bool debug_endpoints = false;
    bool create_accounts = false;
    double stun_refresh = 15.0;
    bool port_mapping = true;      // ask the home router to forward p2p_port (PCP, NAT-PMP, UPnP)
    double p2p_keepalive = 15.0;   // seconds of a peer's silence between keepalive punches; 0 none
    std::map<std::int32_t, std::string> game_proxy_routes;
    std::string user_agent;
    // Lets hosts of bind_host's network use the game proxies and the summon route, which add
    // the player's token: it hands the account to that network.
    bool share_account_with_network = false;

    // The defaults, with the deployment's service host in the URLs.
    Config();
};

// Fills config from a parsed document; anything but an object gives the defaults. Forgiving
// everywhere except game_proxy_routes and the range of a port: a bad key or value there fills
// problem with the key and the reason, and returns false.
bool config_from_json(const nlohmann::json& doc, Config& config, std::string& problem);

// Reads the configuration file at path; a missing file means every default. False with the
// line to show the user in message ("config <name> ..."), name being the path as given. When
// opened is given, it tells whether a file was there to read.
bool load_config_file(const std::filesystem::path& path, const std::string& name, Config& config,
                      std::string& message, bool* opened = nullptr);

// The settings that only a running bridge uses, checked before it starts: bind_host becomes
// dotted IPv4 text (a name is resolved), and stun_server must be "off", a host, or a host and
// a port. False with the key and the reason in problem.
bool settle_bridge_config(Config& config, std::string& problem);

// The STUN server for the gateway: stun_server ("off", "host" or "host:port"), or the host of
// velmar_server on 3478. Nothing when there is none. A port that is not a number throws, like
// any broken setting found while starting; settle_bridge_config refuses it first.
std::optional<Endpoint> pick_stun_server(const Config& config);

}  // namespace zq
