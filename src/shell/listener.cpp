#include "shell/listener.h"

#include <algorithm>

#include "shell/log.h"

namespace zq {

Listener::Connection::~Connection() { close_socket(socket_); }

void Listener::Connection::end() {
    ended_ = true;
    wake_.raise();
    shutdown_socket(socket_);
}

bool Listener::Connection::send(std::string_view bytes) {
    std::lock_guard<std::mutex> guard(send_lock_);
    if (ended_) return false;
    if (send_all(socket_, bytes)) return true;
    // Also wakes the connection's reader, which waits for its peer without a timer.
    end();
    return false;
}

bool Listener::listen(const std::string& host, int port, int backlog, int* error) {
    network_init();
    Socket s = open_tcp_socket();
    set_exclusive_address(s, true);
    if (!bind_socket(s, to_sockaddr(Endpoint{host, port})) || !listen_socket(s, backlog)) {
        if (error) *error = last_socket_error();
        close_socket(s);
        return false;
    }
    socket_ = s;
    port_ = bound_endpoint(s).port;
    if (port_ == 0) port_ = port;
    return true;
}

void Listener::start(Serve serve, std::string cause, Describe describe) {
    serve_ = std::move(serve);
    cause_ = std::move(cause);
    describe_ = std::move(describe);
    {
        // A listener may be started again after a stop.
        std::lock_guard<std::mutex> guard(queue_lock_);
        stopping_ = false;
    }
    stop_signal_.arm();
    accept_thread_ = std::thread(&Listener::accept_thread, this);
}

void Listener::stop() {
    stop_signal_.raise();
    if (accept_thread_.joinable()) accept_thread_.join();
    // Closed only now: a socket number closed under a waiting thread may come back as another.
    close_socket(socket_);
    socket_ = invalid_socket;
    {
        // From now on no connection thread starts another, so that join_all below misses none.
        std::lock_guard<std::mutex> guard(queue_lock_);
        stopping_ = true;
        queue_.clear();
    }
    // No connection comes any more, so none escapes this.
    slots_.wake_all();
    threads_.join_all();
    stop_signal_.close();
}

void Listener::say(Event event, const Endpoint& peer, const std::string& detail) {
    log_limited(cause_ + " " + std::to_string(static_cast<int>(event)), describe_(event, peer, detail));
}

namespace {
// How often queued connections look for a slot again while they wait: a connection that gave
// way may be stuck sending its last answer, and nothing tells the accept thread.
constexpr double queue_recheck = 0.02;
}  // namespace

void Listener::accept_thread() {
    // After a failed accept: from 50 ms, doubling up to a second, and back once one works.
    double rest = 0.05;
    for (;;) {
        // Sleeps until a connection comes or stop raises the signal: nothing to do in between,
        // since ended connection threads are joined when the next one starts. A full queue
        // leaves further connections in the backlog.
        bool room = true;
        double deadline = 0;
        {
            std::lock_guard<std::mutex> guard(queue_lock_);
            room = static_cast<int>(queue_.size()) < max_connections;
            if (!queue_.empty()) deadline = steady_seconds() + queue_recheck;
        }
        const StopSignal::Wait woke = stop_signal_.wait(room ? socket_ : invalid_socket, deadline);
        if (woke == StopSignal::Wait::Stopped) return;
        if (woke != StopSignal::Wait::Ready) {
            std::lock_guard<std::mutex> guard(queue_lock_);
            admit_queued_locked();
            continue;
        }
        SockAddr from;
        const Socket s = accept_socket(socket_, &from);
        if (s == invalid_socket) {
            // Out of descriptors or buffers: the connection waits in the backlog, and the loop
            // tries again a little later instead of spinning or giving up.
            say(Event::AcceptFailed, {}, std::to_string(last_socket_error()));
            stop_signal_.wait(invalid_socket, steady_seconds() + rest);
            rest = std::min(rest * 2, 1.0);
            continue;
        }
        rest = 0.05;
        const Endpoint peer = from_sockaddr(from);
        if (!peers.admits(peer.host)) {
            close_socket(s);
            say(Event::NotServed, peer);
            continue;
        }
        const auto connection = std::shared_ptr<Connection>(new Connection(s, peer));
        std::lock_guard<std::mutex> guard(queue_lock_);
        queue_.push_back(connection);
        admit_queued_locked();
        if (!queue_.empty() && queue_.back() == connection) say(Event::Full, peer);
    }
}

void Listener::admit_queued_locked() {
    if (stopping_) return;
    while (!queue_.empty()) {
        const std::shared_ptr<Connection> connection = queue_.front();
        std::string taken;
        // Called under the slots' lock, which the slot is closed under before the connection
        // (and its socket) can go.
        connection->slot_ = slots_.open([c = connection.get()] { c->end(); }, connection->peer_.text(),
                                        connection->accepted_, max_connections, &taken);
        if (!taken.empty()) say(Event::SlotTaken, connection->peer_, taken);
        if (!connection->slot_) break;
        queue_.pop_front();
        std::string why;
        if (!threads_.start(
                [this, connection] {
                    // Here rather than on the accept thread: the system's socket table may be
                    // long to read, and the accept thread must keep up with whoever connects.
                    if (same_user_only && peers.on_this_pc(connection->peer_.host) &&
                        !peer_is_same_user(connection->socket_))
                        say(Event::OtherUser, connection->peer_);
                    else
                        serve_(connection);
                    slots_.close(connection->slot_);
                    // The slot is free: the connection that has waited longest for one takes it.
                    std::lock_guard<std::mutex> guard(queue_lock_);
                    admit_queued_locked();
                },
                &why)) {
            slots_.close(connection->slot_);
            say(Event::NoThread, connection->peer_, why);
        }
    }
    slots_.set_newcomers(static_cast<int>(queue_.size()));
}

}  // namespace zq
