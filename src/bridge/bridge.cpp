#include "bridge/bridge.h"

#include <algorithm>
#include <vector>

#include "bridge/session.h"
#include "http/fetch.h"
#include "shell/log.h"
#include "shell/platform.h"

namespace zq {

Bridge::Bridge(Config config) : config_(std::move(config)) {}

Bridge::~Bridge() { stop(); }

std::string Bridge::listen(p2p::Gateway* gateway) {
    network_init();
    // Before any game can connect, so that no game call waits on it.
    http::prepare_for(config_.velmar_server);
    cancel_ = std::make_shared<http::CancelFlag>();
    stop_signal_.arm();
    running_ = true;
    gateway_ = gateway;

    const std::string& host = config_.bind_host;
    if (int code = 0; !command_port_.listen(host, config_.tcp_port, 8, &code))
        return format_text("cannot listen on tcp %s:%d - is another bridge running? (error %d)",
                           host.c_str(), config_.tcp_port, code);
    // The identity that the command port hands out carries the stored token.
    command_port_.peers = PeerFilter::for_bind_host(host).this_pc_only();
    command_port_.max_connections = max_game_connections;
    command_port_.same_user_only = peer_user_check_works();
    if (!command_port_.same_user_only)
        log_line("tcp: this system does not tell which user a program on this PC runs as; the command port serves "
                 "every program on this PC");

    udp_socket_ = open_udp_socket();
    if (!bind_socket(udp_socket_, to_sockaddr(Endpoint{host, config_.udp_port})))
        return format_text("cannot bind udp %s:%d (error %d)", host.c_str(), config_.udp_port, last_socket_error());
    bound_udp_port_ = bound_endpoint(udp_socket_).port;
    return {};
}

void Bridge::serve() {
    using Event = Listener::Event;
    command_port_.start(
        [this](const std::shared_ptr<Listener::Connection>& accepted) { session_loop(*this, accepted, frame_budget_); },
        "tcp",
        [](Event event, const Endpoint& peer, const std::string& detail) -> std::string {
            const std::string from = peer.text();
            switch (event) {
                case Event::AcceptFailed: return "tcp: accept failed (error " + detail + "); retrying";
                case Event::NotServed: return "tcp: refused connection from " + from + " (not this PC)";
                case Event::OtherUser: return "tcp: refused connection from " + from + " (a program of another user)";
                case Event::SlotTaken:
                    return "tcp: took a connection slot back from " + detail + ", idle without a login";
                case Event::Full: return "tcp: connection from " + from + " waits for a slot (too many connections)";
                case Event::NoThread: return "tcp: refused connection from " + from + " (cannot start a thread)";
            }
            return {};
        });
    stun_thread_ = std::thread(&Bridge::stun_thread, this, udp_socket_);
}

void Bridge::stop() {
    if (!running_.exchange(false)) return;
    stop_signal_.raise();

    // First end every upstream call in flight, so no command holds a session for long; then end
    // every game connection, with a session or without one yet, and join its thread, which takes
    // its session down and off the list.
    cancel_->cancel();
    command_port_.stop();

    // The stop signal woke the receive; it is joined before the socket is closed, so that it
    // cannot touch a reused handle.
    if (udp_socket_ != invalid_socket) shutdown_socket(udp_socket_);
    if (stun_thread_.joinable()) stun_thread_.join();
    close_socket(udp_socket_);
    udp_socket_ = invalid_socket;
    stop_signal_.close();

    std::lock_guard<std::mutex> guard(sessions_lock_);
    sessions_.clear();
    gateway_ = nullptr;
}

std::vector<std::shared_ptr<Session>> Bridge::sessions() {
    std::lock_guard<std::mutex> guard(sessions_lock_);
    return sessions_;
}

void Bridge::add_session(std::shared_ptr<Session> session) {
    std::lock_guard<std::mutex> guard(sessions_lock_);
    sessions_.push_back(std::move(session));
}

void Bridge::remove_session(const std::shared_ptr<Session>& session) {
    std::lock_guard<std::mutex> guard(sessions_lock_);
    sessions_.erase(std::remove(sessions_.begin(), sessions_.end(), session), sessions_.end());
}

nlohmann::json Bridge::advertisement() {
    std::lock_guard<std::mutex> guard(sessions_lock_);
    return advertisement_;
}

void Bridge::set_advertisement(const nlohmann::json& advertisement) {
    std::lock_guard<std::mutex> guard(sessions_lock_);
    advertisement_ = advertisement;
}

std::map<std::string, Endpoint> Bridge::stun_table() {
    std::lock_guard<std::mutex> guard(endpoints_lock_);
    return stun_table_;
}

std::optional<Endpoint> Bridge::stun_entry(const std::string& online_id) {
    std::lock_guard<std::mutex> guard(endpoints_lock_);
    auto found = stun_table_.find(online_id);
    if (found == stun_table_.end()) return std::nullopt;
    return found->second;
}

}  // namespace zq
