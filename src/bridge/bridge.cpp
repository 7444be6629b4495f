#include "bridge/bridge.h"

#include <vector>

#include "bridge/session.h"
#include "shell/log.h"
#include "shell/platform.h"
#include "web/game_proxy.h"
#include "web/web_api.h"

namespace zq {

Bridge::Bridge(Config config) : config_(std::move(config)) {}

Bridge::~Bridge() { stop(); }

bool Bridge::fail(std::string* error, const std::string& message) {
    if (error) *error = message;
    log_line(message);
    stop();
    return false;
}

// The P2P gateway comes up here, before any listener, when p2p_gateway is on.
bool Bridge::start_gateway(std::string* error) {
    std::string lan = config_.local_addr.empty() ? local_ipv4() : config_.local_addr;
    gateway = std::make_unique<p2p::Gateway>(config_.p2p_port, pick_stun_server(), lan,
                                             [this](const Endpoint& mapped) { on_mapped_change(mapped); });
    gateway->stun_refresh = config_.stun_refresh;
    gateway->port_mapping = config_.port_mapping;
    gateway->keepalive_interval = config_.p2p_keepalive;
    std::string text;
    if (!gateway->start(&text)) {
        gateway.reset();
        return fail(error, text);
    }
    return true;
}

bool Bridge::start(std::string* error) {
    network_init();
    cancel_ = std::make_shared<http::CancelFlag>();
    stop_signal_.arm();
    running_ = true;

    if (config_.p2p_gateway && !start_gateway(error)) return false;

    const std::string& host = config_.bind_host;
    if (int code = 0; !command_port_.listen(host, config_.tcp_port, 8, &code))
        return fail(error, format_text("cannot listen on tcp %s:%d - is another bridge running? (error %d)",
                                       host.c_str(), config_.tcp_port, code));
    // The identity that the command port hands out carries the stored token.
    const PeerFilter near = PeerFilter::for_bind_host(host);
    command_port_.peers = near.this_pc_only();
    command_port_.max_connections = max_game_connections;
    command_port_.same_user_only = peer_user_check_works();
    if (!command_port_.same_user_only)
        log_line("tcp: this system does not tell which user a program on this PC runs as; the command port serves "
                 "every program on this PC");

    udp_socket_ = open_udp_socket();
    if (!bind_socket(udp_socket_, to_sockaddr(Endpoint{host, config_.udp_port})))
        return fail(error, format_text("cannot bind udp %s:%d (error %d)", host.c_str(), config_.udp_port,
                                       last_socket_error()));
    bound_udp_port_ = bound_endpoint(udp_socket_).port;

    std::string web_error;
    web_server_.peers = near;
    if (!web_server_.start(host, config_.webapi_port,
                           [this](const http::ServerRequest& request) { return web_api_handler(*this, request); },
                           &web_error))
        return fail(error, web_error);

    using Event = Listener::Event;
    command_port_.start(
        [this](const std::shared_ptr<Listener::Connection>& accepted) { connection_thread(accepted); }, "tcp",
        [](Event event, const Endpoint& peer, const std::string& detail) -> std::string {
            const std::string from = peer.text();
            switch (event) {
                case Event::AcceptFailed: return "tcp: accept failed (error " + detail + "); retrying";
                case Event::NotServed: return "tcp: refused connection from " + from + " (not this PC)";
                case Event::OtherUser: return "tcp: refused connection from " + from + " (a program of another user)";
                case Event::SlotTaken:
                    return "tcp: took a connection slot back from " + detail + ", idle without a login";
                case Event::Full: return "tcp: refused connection from " + from + " (too many connections)";
                case Event::NoThread: return "tcp: refused connection from " + from + " (cannot start a thread)";
            }
            return {};
        });
    stun_thread_ = std::thread(&Bridge::stun_thread, this, udp_socket_);

    log_line(format_text("listening: tcp :%d  stun :%d  webapi :%d", config_.tcp_port, config_.udp_port,
                         web_server_.port));

    // The routes are a map by port, so this is ascending port order.
    for (const auto& route : config_.game_proxy_routes) {
        const int port = route.first;
        const std::string url = route.second;
        auto proxy = std::make_unique<http::Server>();
        // A proxy adds the player's token: hosts of the network may use it only where the user
        // chose to share the account with them.
        proxy->peers = config_.share_account_with_network ? near : near.this_pc_only();
        std::string proxy_error;
        if (!proxy->start(host, port,
                          [this, url](const http::ServerRequest& request) {
                              return game_proxy_handler(*this, url, request);
                          },
                          &proxy_error))
            return fail(error, proxy_error);
        log_line(format_text("game proxy :%d -> %s", proxy->port, url.c_str()));
        game_proxies_.push_back(std::move(proxy));
    }
    log_line("velmar server: " + config_.velmar_server);
    log_line("community server: " + config_.community_server);
    return true;
}

void Bridge::stop() {
    if (!running_.exchange(false)) return;
    stop_signal_.raise();
    // First end every upstream call in flight, so no command holds a session lock for long;
    // then end every game connection, with a session or without one yet, and join its thread,
    // which takes its session down and off the list.
    cancel_->cancel();
    command_port_.stop();

    if (gateway) gateway->stop();
    for (auto& proxy : game_proxies_) proxy->stop();
    game_proxies_.clear();
    web_server_.stop();

    // The stop signal woke the receive; it is joined before the socket is closed, so that it
    // cannot touch a reused handle.
    if (udp_socket_ != invalid_socket) shutdown_socket(udp_socket_);
    if (stun_thread_.joinable()) stun_thread_.join();
    close_socket(udp_socket_);
    udp_socket_ = invalid_socket;
    stop_signal_.close();
}

void Bridge::connection_thread(const std::shared_ptr<Listener::Connection>& accepted) {
    set_tcp_nodelay(accepted->socket());
    set_send_timeout(accepted->socket(), send_timeout_ms);
    log_line("tcp: connection from " + accepted->peer().text());
    session_loop(*this, std::make_shared<TcpConn>(accepted), accepted->slot(), frame_budget_);
}

std::vector<int> Bridge::bound_game_proxy_ports() const {
    std::vector<int> ports;
    for (const auto& proxy : game_proxies_) ports.push_back(proxy->port);
    return ports;
}

std::optional<Endpoint> Bridge::pick_stun_server() const {
    const std::string& stun = config_.stun_server;
    if (stun == "off") return std::nullopt;
    if (!stun.empty()) {
        auto colon = stun.find(':');
        if (colon == std::string::npos) return Endpoint{stun, 3478};
        // A port that is not a number is a broken setting: the process ends, as for any
        // uncaught exception while starting.
        return Endpoint{stun.substr(0, colon), std::stoi(stun.substr(colon + 1))};
    }
    std::string rest = config_.velmar_server;
    auto scheme = rest.find("://");
    if (scheme != std::string::npos) rest = rest.substr(scheme + 3);
    rest = rest.substr(0, rest.find_first_of(":/"));
    if (rest.empty()) return std::nullopt;
    return Endpoint{rest, 3478};
}

}  // namespace zq
