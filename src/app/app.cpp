#include "app/app.h"

#include "bridge/session.h"
#include "shell/log.h"
#include "shell/net.h"
#include "shell/peer_filter.h"
#include "web/game_proxy.h"
#include "web/web_api.h"

namespace zq {

App::App(Config config) : bridge_(std::move(config)) {}

App::~App() { stop(); }

bool App::fail(std::string* error, const std::string& message) {
    if (error) *error = message;
    log_line(message);
    stop();
    return false;
}

bool App::start(std::string* error) {
    const Config& settings = config();
    network_init();
    if (settings.p2p_gateway) {
        const std::string lan = settings.local_addr.empty() ? local_ipv4() : settings.local_addr;
        gateway_ = std::make_unique<p2p::Gateway>(settings.p2p_port, pick_stun_server(settings), lan,
                                                  [this](const Endpoint& mapped) { bridge_.on_mapped_change(mapped); });
        gateway_->stun_refresh = settings.stun_refresh;
        gateway_->port_mapping = settings.port_mapping;
        gateway_->keepalive_interval = settings.p2p_keepalive;
        std::string text;
        if (!gateway_->start(&text)) return fail(error, text);
    }
    if (std::string why = bridge_.listen(gateway_.get()); !why.empty()) return fail(error, why);

    const std::string& host = settings.bind_host;
    const PeerFilter near = PeerFilter::for_bind_host(host);
    std::string text;
    web_server_.peers = near;
    // The proxies and the summon route send with the player's token, and the status page shows
    // the player's room: not for programs of another user of this PC.
    const bool same_user = peer_user_check_works();
    web_server_.same_user_only = same_user;
    if (!web_server_.start(host, settings.webapi_port,
                           [this](const http::ServerRequest& request) { return web_api_handler(*this, request); },
                           &text))
        return fail(error, text);
    bridge_.serve();
    log_line(format_text("listening: tcp :%d  stun :%d  webapi :%d", settings.tcp_port, settings.udp_port,
                         web_server_.port));

    // The routes are a map by port, so this is ascending port order.
    for (const auto& route : settings.game_proxy_routes) {
        const std::string url = route.second;
        auto proxy = std::make_unique<http::Server>();
        // A proxy adds the player's token: hosts of the network may use it only where the user
        // chose to share the account with them.
        proxy->peers = settings.share_account_with_network ? near : near.this_pc_only();
        proxy->same_user_only = same_user;
        if (!proxy->start(host, route.first,
                          [this, url](const http::ServerRequest& request) {
                              return game_proxy_handler(*this, url, request);
                          },
                          &text))
            return fail(error, text);
        log_line(format_text("game proxy :%d -> %s", proxy->port, url.c_str()));
        game_proxies_.push_back(std::move(proxy));
    }
    return true;
}

void App::stop() {
    // The reverse of start: nothing that asks the bridge is left when it goes, and the
    // sessions leave their rooms while the gateway still holds their links.
    for (auto& proxy : game_proxies_) proxy->stop();
    game_proxies_.clear();
    web_server_.stop();
    bridge_.stop();
    if (gateway_) gateway_->stop();
    gateway_.reset();
}

std::vector<int> App::bound_game_proxy_ports() const {
    std::vector<int> ports;
    for (const auto& proxy : game_proxies_) ports.push_back(proxy->port);
    return ports;
}

web::Credentials App::credentials() {
    for (const auto& session : bridge_.sessions()) {
        if (!session->logged_in) continue;
        if (std::string token = session->upstream.current_token(); !token.empty())
            return {token, session->upstream.ruleset};
    }
    return {};
}

std::vector<SessionStatus> App::session_rows() {
    std::vector<SessionStatus> rows;
    for (const auto& session : bridge_.sessions()) rows.push_back(session->status());
    return rows;
}

}  // namespace zq
