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

bool Bridge::fail(std::string* error, const std::string& message) {
    if (error) *error = message;
    log_line(message);
    stop();
    return false;
}

bool Bridge::listen(p2p::Gateway* gateway, std::string* error) {
    network_init();
    // Before any game can connect, so that no game call waits on it.
    http::prepare_for(config_.velmar_server);
    cancel_ = std::make_shared<http::CancelFlag>();
    stop_signal_.arm();
    running_ = true;
    gateway_ = gateway;

    const std::string& host = config_.bind_host;
    tcp_socket_ = open_tcp_socket();
    set_exclusive_address(tcp_socket_, true);
    SockAddr tcp_address = to_sockaddr(Endpoint{host, config_.tcp_port});
    if (!bind_socket(tcp_socket_, tcp_address) || !listen_socket(tcp_socket_, 8))
        return fail(error, format_text("cannot listen on tcp %s:%d - is another bridge running? (error %d)",
                                       host.c_str(), config_.tcp_port, last_socket_error()));
    bound_tcp_port_ = bound_endpoint(tcp_socket_).port;
    // The identity that the command port hands out carries the stored token.
    command_peers_ = PeerFilter::for_bind_host(host).this_pc_only();
    check_peer_user_ = peer_user_check_works();
    if (!check_peer_user_)
        log_line("tcp: this system does not tell which user a program on this PC runs as; the command port serves "
                 "every program on this PC");

    udp_socket_ = open_udp_socket();
    if (!bind_socket(udp_socket_, to_sockaddr(Endpoint{host, config_.udp_port})))
        return fail(error, format_text("cannot bind udp %s:%d (error %d)", host.c_str(), config_.udp_port,
                                       last_socket_error()));
    bound_udp_port_ = bound_endpoint(udp_socket_).port;
    return true;
}

void Bridge::serve() {
    accept_thread_ = std::thread(&Bridge::accept_thread, this, tcp_socket_);
    stun_thread_ = std::thread(&Bridge::stun_thread, this, udp_socket_);
}

void Bridge::stop() {
    if (!running_.exchange(false)) return;
    stop_signal_.raise();

    // First end every upstream call in flight, so no command holds a session for long, and
    // wake every blocked read and send, of connections with a session or without one yet: each
    // connection's own thread then takes its session down.
    cancel_->cancel();
    connection_slots_.wake_all();

    // The stop signal woke the accept and the receive; they are joined before the sockets are
    // closed, so no thread can touch a reused handle.
    if (tcp_socket_ != invalid_socket) shutdown_socket(tcp_socket_);
    if (udp_socket_ != invalid_socket) shutdown_socket(udp_socket_);
    if (accept_thread_.joinable()) accept_thread_.join();
    if (stun_thread_.joinable()) stun_thread_.join();
    for (Socket* s : {&tcp_socket_, &udp_socket_}) {
        close_socket(*s);
        *s = invalid_socket;
    }

    // Every connection thread is joined: they touch this object to their last act. Their calls
    // were cancelled and their sockets shut down above, so none of them waits on anyone else.
    connection_threads_.join_all();
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

void Bridge::accept_thread(Socket listener) {
    AcceptBackoff backoff;
    while (running_) {
        // Sleeps until a game connects or stop raises the signal; ended connection threads
        // are joined when the next one starts.
        if (!wait_for_input(listener, 0)) continue;
        SockAddr peer;
        Socket s = accept_socket(listener, &peer);
        if (s == invalid_socket) {
            // Out of file handles or buffers: the pending connection stays queued; rest, then
            // try again. The loop ends only with the bridge.
            if (!running_) return;
            log_limited("tcp accept", format_text("tcp: accept failed (error %d); retrying", last_socket_error()));
            stop_signal_.wait(invalid_socket, steady_seconds() + backoff.next_seconds());
            continue;
        }
        backoff.reset();
        const Endpoint address = from_sockaddr(peer);
        const std::string from = address.text();
        // The command port hands out the stored tokens of this PC: only the player's own
        // programs may ask.
        if (!command_peers_.on_this_pc(address.host)) {
            close_socket(s);
            log_limited("tcp refused", "tcp: refused connection from " + from + " (not this PC)");
            continue;
        }
        if (check_peer_user_ && !peer_is_same_user(s)) {
            close_socket(s);
            log_limited("tcp other user", "tcp: refused connection from " + from + " (a program of another user)");
            continue;
        }
        auto connection = std::make_shared<TcpConn>(s);
        std::string taken;
        auto slot = connection_slots_.open(
            [weak = std::weak_ptr<TcpConn>(connection)] {
                if (auto c = weak.lock()) c->close();
            },
            from, max_game_connections, &taken);
        if (!taken.empty())
            log_limited("tcp taken", "tcp: took a connection slot back from " + taken + ", idle without a login");
        if (!slot) {
            connection->release();
            log_limited("tcp full", "tcp: refused connection from " + from + " (too many connections)");
            continue;
        }
        set_tcp_nodelay(s);
        set_send_timeout(s, send_timeout_ms);
        log_line("tcp: connection from " + from);
        if (!connection_threads_.start([this, connection, slot] { connection_thread(connection, slot); })) {
            // No thread to serve it: this connection is refused, the bridge goes on.
            connection_slots_.close(slot);
            connection->release();
            log_limited("tcp thread", "tcp: refused connection from " + from + " (cannot start a thread)");
        }
    }
}

void Bridge::connection_thread(const std::shared_ptr<TcpConn>& connection,
                               const std::shared_ptr<ConnectionSlots::Slot>& slot) {
    // stop() clears running before it wakes the connections: one whose slot came after that
    // sees the flag here instead.
    if (!running_) connection->close();
    session_loop(*this, connection, *slot, frame_budget_);
    connection_slots_.close(slot);
}

}  // namespace zq
