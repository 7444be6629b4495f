#include "p2p/gateway.h"

#include "shell/log.h"
#include "shell/platform.h"

namespace zq::p2p {

namespace {

// A queue deep enough to ride out a burst while the thread is not running (about 50 ms of a
// fast game on a busy machine), without the system's small default.
constexpr int kReceiveBuffer = 1 << 20;

}  // namespace

Socket bind_udp(const std::string& host, int port, Endpoint& bound) {
    Socket s = open_udp_socket();
    if (s == invalid_socket) return invalid_socket;
    if (!bind_socket(s, to_sockaddr(Endpoint{host, port}))) {
        close_socket(s);
        return invalid_socket;
    }
    disable_udp_connreset(s);
    set_receive_buffer(s, kReceiveBuffer);
    bound = bound_endpoint(s);
    return s;
}

Gateway::Link::~Link() {
    close_socket(socket);
    close_socket(retired_socket);
}

void Gateway::Link::close_socket_locked() {
    if (socket == invalid_socket) return;
    retired_socket = socket;
    socket = invalid_socket;
}

Gateway::Gateway(std::int32_t port, std::optional<Endpoint> stun_server, std::string lan_host,
                 std::function<void(const Endpoint&)> on_mapped_change)
    : port(port),
      stun_server(std::move(stun_server)),
      lan_host(std::move(lan_host)),
      on_mapped_change(std::move(on_mapped_change)) {
    // Made here and closed only by the destructor, so that any thread may wake port_thread at
    // any time. Without it port_thread falls back to looking at the links every 100 ms.
    network_init();
    wake_address = Endpoint{"127.0.0.1", 0};
    wake_socket = bind_udp("127.0.0.1", 0, wake_address);
}

Gateway::~Gateway() {
    stop();
    close_socket(wake_socket);
}

bool Gateway::start(std::string* error) {
    network_init();
    Endpoint bound;
    Socket s = bind_udp("0.0.0.0", port, bound);
    if (s == invalid_socket) {
        if (error) *error = format_text("p2p: cannot bind udp :%d (error %d)", port, last_socket_error());
        return false;
    }
    public_socket = s;
    check_port_users = datagram_user_check_works();
    {
        std::lock_guard<std::mutex> guard(mutex);
        port = bound.port;
    }
    stopping = false;
    // Each thread reports in once it runs, so start returns with all three up. (A plain
    // condition variable: the atomic-wait behind std::latch can miss a wake-up on MinGW.)
    std::mutex ready_lock;
    std::condition_variable ready_signal;
    int started = 0;
    auto report_in = [&] {
        std::lock_guard<std::mutex> guard(ready_lock);
        ++started;
        ready_signal.notify_all();
    };
    // The data path wakes for each datagram and works briefly: on a busy PC it should not wait
    // behind the threads that keep the cores busy.
    threads.emplace_back([this, report_in] {
        raise_thread_priority();
        report_in();
        peer_thread();
    });
    threads.emplace_back([this, report_in] {
        raise_thread_priority();
        report_in();
        port_thread();
    });
    threads.emplace_back([this, report_in] { report_in(); timer_thread(); });
    // Without a STUN server there is nothing to resolve and no address to tell, nor a way to
    // know whether a port mapping is worth telling.
    const bool mapping_on = stun_server && port_mapping;
    const int count = stun_server ? (mapping_on ? 6 : 5) : 3;
    if (stun_server) {
        threads.emplace_back([this, report_in] { report_in(); stun_thread(); });
        threads.emplace_back([this, report_in] { report_in(); report_thread(); });
    }
    if (mapping_on) threads.emplace_back([this, report_in] { report_in(); mapping_thread(); });
    {
        std::unique_lock<std::mutex> guard(ready_lock);
        ready_signal.wait(guard, [&] { return started == count; });
    }
    log_line(format_text("p2p: gateway on udp :%d (velmar framing)", bound.port));
    if (!check_port_users)
        log_line("p2p: this system does not tell which user a program on this PC runs as; a link learns the "
                 "game's side from any program on this PC");
    return true;
}

void Gateway::stop() {
    if (stopping.exchange(true)) return;
    if (public_socket != invalid_socket) {
        // Wake peer_thread from its blocking receive: an empty datagram to ourselves works on
        // every system, and the shutdown is what Linux needs when the queue is full.
        Socket wake = open_udp_socket();
        if (wake != invalid_socket) {
            send_to(wake, "", 0, to_sockaddr(Endpoint{"127.0.0.1", port}));
            close_socket(wake);
        }
        shutdown_socket(public_socket);
    }
    wake_port_thread();
    // Taking each lock before the notification means that a thread about to wait has either
    // seen stopping already or is waiting and gets the wake-up.
    {
        std::lock_guard<std::mutex> guard(mutex);
        timer_signal.notify_all();
    }
    {
        std::lock_guard<std::mutex> guard(stun_lock);
        stun_signal.notify_all();
    }
    for (auto& t : threads) t.join();
    threads.clear();
    close_socket(public_socket);
    public_socket = invalid_socket;
    std::lock_guard<std::mutex> guard(mutex);
    for (auto& [id, link] : links) link->close_socket_locked();
    links.clear();
    routes_changed_locked();
}

void Gateway::wake_port_thread() {
    if (wake_socket != invalid_socket) send_to(wake_socket, "", 0, to_sockaddr(wake_address));
}

Endpoint Gateway::add_member(std::int32_t member_id, const std::string& online_id, const Endpoint& endpoint,
                             const Endpoint& local_endpoint, const std::string& port_online_id,
                             std::int32_t port_member_id, std::uint64_t room_id,
                             const std::optional<Endpoint>& port_endpoint) {
    std::shared_ptr<Link> link;
    Endpoint port_sees;
    {
        std::lock_guard<std::mutex> guard(mutex);
        routes_changed_locked();
        // Re-key: a provisional link for this person moves to the real id and keeps its socket,
        // so the port keeps the address it already has for him.
        if (!online_id.empty()) {
            for (auto it = links.begin(); it != links.end(); ++it) {
                if (it->second->online_id != online_id || it->first == member_id) continue;
                std::shared_ptr<Link> found = it->second;
                links.erase(it);
                auto other = links.find(member_id);
                if (other != links.end() && other->second != found) {
                    other->second->close_socket_locked();
                    links.erase(other);
                }
                found->member_id = member_id;
                found->hello.peer_member = member_id < 0 ? 0u : static_cast<std::uint32_t>(member_id);
                links[member_id] = found;
                break;
            }
        }
        auto it = links.find(member_id);
        if (it != links.end() && it->second->online_id == online_id) {
            Link& l = *it->second;
            if (endpoint.usable()) l.endpoint = endpoint;
            if (local_endpoint.usable()) l.local_endpoint = local_endpoint;
            if (port_endpoint && !l.port_address) l.port_address = port_endpoint;
            if (port_member_id != 0) l.hello.port_member = static_cast<std::uint32_t>(port_member_id);
            if (room_id != 0) l.hello.room_id = room_id;
            port_sees = l.port_sees;
        } else {
            if (it != links.end()) {
                it->second->close_socket_locked();
                links.erase(it);
            }
            link = std::make_shared<Link>();
            link->member_id = member_id;
            link->online_id = online_id;
            link->endpoint = endpoint;
            link->local_endpoint = local_endpoint;
            link->port_address = port_endpoint;
            link->hello.peer_name = fixed16(online_id);
            link->hello.port_name = fixed16(port_online_id);
            link->hello.peer_member = member_id < 0 ? 0u : static_cast<std::uint32_t>(member_id);
            link->hello.port_member = static_cast<std::uint32_t>(port_member_id);
            link->hello.room_id = room_id;
            link->hello.hello_token = link->hello.peer_member + 0x4242;
            link->created = steady_seconds();
            Endpoint bound{"127.0.0.1", 0};
            link->socket = bind_udp("127.0.0.1", 0, bound);
            link->port_sees = Endpoint{"127.0.0.1", link->socket == invalid_socket ? 0 : bound.port};
            links[member_id] = link;
            port_sees = link->port_sees;
        }
        // A new link is due for punches and hellos.
        timer_signal.notify_all();
    }
    // The set of link sockets may have changed either way (a re-key can close one).
    wake_port_thread();
    if (!link) return port_sees;
    log_line(format_text("p2p: member %d (%s) at %s -> port sees 127.0.0.1:%d", member_id, online_id.c_str(),
                         endpoint.usable() ? endpoint.text().c_str() : "?:0", port_sees.port));
    return port_sees;
}

void Gateway::remove_member(std::int32_t member_id) {
    std::uint64_t to_peer, to_port, signaling;
    {
        std::lock_guard<std::mutex> guard(mutex);
        auto it = links.find(member_id);
        if (it == links.end()) return;
        std::shared_ptr<Link> link = it->second;
        links.erase(it);
        link->close_socket_locked();
        routes_changed_locked();
        to_peer = link->to_peer.load(std::memory_order_relaxed);
        to_port = link->to_port.load(std::memory_order_relaxed);
        signaling = link->signaling;
    }
    wake_port_thread();
    log_line(format_text("p2p: member %d removed (to peer %llu, to port %llu, signaling %llu)", member_id,
                         static_cast<unsigned long long>(to_peer), static_cast<unsigned long long>(to_port),
                         static_cast<unsigned long long>(signaling)));
}

void Gateway::remove_all_members() {
    std::vector<std::int32_t> ids;
    {
        std::lock_guard<std::mutex> guard(mutex);
        for (const auto& [id, link] : links) ids.push_back(id);
    }
    for (auto id : ids) remove_member(id);
}

void Gateway::retain_members(const std::set<std::string>& online_ids) {
    std::vector<std::int32_t> ids;
    {
        std::lock_guard<std::mutex> guard(mutex);
        for (const auto& [id, link] : links)
            if (!online_ids.count(link->online_id)) ids.push_back(id);
    }
    for (auto id : ids) remove_member(id);
}

std::pair<Endpoint, Endpoint> Gateway::own_endpoints() const {
    std::lock_guard<std::mutex> guard(mutex);
    Endpoint lan{lan_host, port};
    std::optional<Endpoint> public_address = public_address_locked();
    return {lan, public_address ? *public_address : lan};
}

std::optional<Endpoint> Gateway::port_address_of(const std::string& online_id) const {
    std::lock_guard<std::mutex> guard(mutex);
    for (const auto& [id, link] : links)
        if (link->online_id == online_id) return link->port_sees;
    return std::nullopt;
}

std::optional<Endpoint> Gateway::mapped_address() const {
    std::lock_guard<std::mutex> guard(mutex);
    return mapped;
}

std::int32_t Gateway::relay_port() const {
    std::lock_guard<std::mutex> guard(mutex);
    return relay ? relay->port : 0;
}

std::vector<LinkInfo> Gateway::links_snapshot() const {
    std::lock_guard<std::mutex> guard(mutex);
    std::vector<LinkInfo> rows;
    for (const auto& [id, l] : links) {
        LinkInfo& row = rows.emplace_back();
        row.member_id = l->member_id;
        row.online_id = l->online_id;
        row.endpoint = l->endpoint;
        row.port_sees = l->port_sees;
        row.peer_member = l->hello.peer_member;
        row.port_member = l->hello.port_member;
        row.room_id = l->hello.room_id;
        row.to_peer = l->to_peer.load(std::memory_order_relaxed);
        row.to_port = l->to_port.load(std::memory_order_relaxed);
        row.signaling = l->signaling;
        row.local_endpoint = l->local_endpoint;
        row.peer_heard = l->peer_heard;
        row.last_heard = l->last_heard.load(std::memory_order_relaxed);
        row.heard_on_lan = l->heard_on_lan.load(std::memory_order_relaxed);
        row.on_relay = relay && l->endpoint.host == relay->server.host && l->endpoint.port != relay->server.port;
    }
    return rows;
}

}  // namespace zq::p2p
