#pragma once
// The composition root: the one object that owns everything that runs while the program serves
// a game (the gateway, the bridge, the web API and the game proxies), brings it up in one
// order and takes it down in the reverse. One per process, on the entry's stack. It is also
// the web's host, over the bridge and the gateway.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bridge/bridge.h"
#include "http/server.h"
#include "p2p/gateway.h"
#include "shell/config.h"
#include "web/host.h"

namespace zq {

class App final : private web::Host {
public:
    explicit App(Config config);
    ~App() override;

    // Brings everything up. On failure the reason goes to *error (if given) and to the log,
    // whatever came up is taken down again, and the result is false.
    bool start(std::string* error);
    // Safe at any time, any number of times.
    void stop();

    const Config& config() const override { return bridge_.config(); }
    Bridge& bridge() { return bridge_; }
    p2p::Gateway* gateway() override { return gateway_.get(); }
    int bound_tcp_port() const { return bridge_.bound_tcp_port(); }
    int bound_udp_port() const { return bridge_.bound_udp_port(); }
    int bound_webapi_port() const { return web_server_.port; }
    // The ports that the game proxies hold, in the ascending order of their routes.
    std::vector<int> bound_game_proxy_ports() const;

private:
    bool fail(std::string* error, const std::string& message);

    web::Credentials credentials() override;
    nlohmann::json advertisement() override { return bridge_.advertisement(); }
    void set_advertisement(const nlohmann::json& advertisement) override { bridge_.set_advertisement(advertisement); }
    std::map<std::string, Endpoint> stun_table() override { return bridge_.stun_table(); }
    std::vector<SessionStatus> session_rows() override;
    web::Ports ports() override { return {bound_tcp_port(), bound_udp_port(), bound_webapi_port()}; }

    // Declared in the order of start, so that each is destroyed before what it uses.
    std::unique_ptr<p2p::Gateway> gateway_;  // null when p2p_gateway is off
    Bridge bridge_;
    http::Server web_server_;
    std::vector<std::unique_ptr<http::Server>> game_proxies_;  // one per route that came up
};

// Runs the bridge until a console stop event. config_file is the settings file as named on the
// command line, and config_read whether it was there to read; the start names both.
int run_bridge(const Config& config, const std::filesystem::path& config_file, bool config_read);

}  // namespace zq
