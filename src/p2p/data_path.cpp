// The three threads that move datagrams between the game port and the peers.

#include <map>

#include "p2p/gateway.h"
#include "p2p/stun.h"
#include "shell/log.h"
#include "shell/platform.h"

namespace zq::p2p {

namespace {

constexpr int kBufferSize = 65536;
constexpr std::size_t kMaxWaitSockets = 64;
// Addresses one link may collect by learning: a NAT that rebinds now and then stays followed,
// and nobody can grow a link without end.
constexpr std::size_t kMaxKnownAddresses = 8;

// A peer that lives on the relay is known by the relay's host and the port of its allocation;
// the relay's own address is its control channel and is never wrapped.
bool behind_relay(const std::optional<Gateway::Relay>& relay, const Endpoint& destination) {
    return relay && destination.host == relay->server.host && destination.port != relay->server.port;
}

// Expects the mutex held, for local_endpoint.
void note_heard(Gateway::Link& link, const Endpoint& sender) {
    link.last_heard.store(steady_seconds(), std::memory_order_relaxed);
    link.heard_on_lan.store(link.local_endpoint.usable() && sender == link.local_endpoint, std::memory_order_relaxed);
}

}  // namespace

void Gateway::send_to_peer(const std::string& frame, const Endpoint& destination) {
    if (!destination.usable()) return;
    std::optional<Relay> via;
    {
        std::lock_guard<std::mutex> guard(mutex);
        via = relay;
    }
    if (behind_relay(via, destination)) {
        std::string wrapped = relay_frame_to_server(via->token, destination.port, frame);
        send_to(public_socket, wrapped.data(), static_cast<int>(wrapped.size()), to_sockaddr(via->server));
    } else {
        send_to(public_socket, frame.data(), static_cast<int>(frame.size()), to_sockaddr(destination));
    }
}

void Gateway::send_to_port(const std::shared_ptr<Link>& link, const std::string& frame) {
    Socket s;
    std::optional<Endpoint> to;
    {
        std::lock_guard<std::mutex> guard(mutex);
        s = link->socket;
        to = link->port_address;
    }
    if (s == invalid_socket || !to) return;
    send_to(s, frame.data(), static_cast<int>(frame.size()), to_sockaddr(*to));
}

std::shared_ptr<Gateway::Link> Gateway::find_link_from(const Endpoint& sender, bool proving) {
    for (auto& [id, link] : links) {
        bool known = link->known_addresses.count(sender) != 0;
        if (!(sender == link->endpoint || sender == link->local_endpoint || known)) continue;
        // Traffic follows the address that the peer used last.
        if (sender != link->endpoint && known) link->endpoint = sender;
        return link;
    }
    // A NAT that gave the peer a new port. Anyone behind the peer's NAT shares its host, so a
    // new port is taken only from a punch, the datagram of the gateway's own framing, and only
    // while nothing has come from the peer yet: after that the peer is known where it is, and
    // a newcomer on its host would only take its traffic. It is safe to follow at all only
    // when one link has this host.
    if (!proving) return nullptr;
    std::shared_ptr<Link> only;
    int count = 0;
    for (auto& [id, link] : links) {
        if (link->endpoint.usable() && link->endpoint.host == sender.host) {
            only = link;
            ++count;
        }
    }
    if (count != 1 || only->peer_heard || only->known_addresses.size() + 2 > kMaxKnownAddresses) return nullptr;
    only->known_addresses.insert(only->endpoint);
    only->known_addresses.insert(sender);
    log_limited("p2p address learned", format_text("p2p: member %d (%s) also at %s", only->member_id,
                                                   only->online_id.c_str(), sender.text().c_str()));
    only->endpoint = sender;
    return only;
}

void Gateway::peer_thread() {
    std::vector<char> buffer(kBufferSize, 0);
    while (!stopping) {
        SockAddr from;
        int n = recv_from(public_socket, buffer.data(), kBufferSize, &from);
        // The wake-up datagram of stop must not be taken for a peer.
        if (n < 0 || stopping) continue;
        Endpoint sender = from_sockaddr(from);
        std::string datagram(buffer.data(), static_cast<std::size_t>(n));

        {
            std::lock_guard<std::mutex> guard(mutex);
            int source_port = 0;
            std::string payload;
            if (relay && sender == relay->server && relay_frame_from_server(datagram, source_port, payload)) {
                datagram = std::move(payload);
                sender = Endpoint{relay->server.host, source_port};
            }
        }

        if (datagram.size() >= 20 && datagram[0] == 0x01 && datagram[1] == 0x01) {
            // Only the server that was asked may answer; a guessed transaction from anywhere
            // else would set our public address and the relay.
            bool from_server;
            {
                std::lock_guard<std::mutex> guard(mutex);
                from_server = stun_target.usable() && sender == stun_target;
            }
            if (from_server) on_stun_answer(datagram);
            continue;
        }

        const bool punch = is_punch(datagram);
        std::shared_ptr<Link> link;
        {
            std::lock_guard<std::mutex> guard(mutex);
            link = find_link_from(sender, punch);
            if (punch) {
                // A punch only opens the NAT; both sides send their own, so it is never answered.
                if (link) {
                    link->peer_heard = true;
                    note_heard(*link, sender);
                }
                continue;
            }
        }
        if (!link) continue;  // nothing from strangers reaches the port

        std::string frame;
        if (!peer_frame_to_port(datagram, frame)) continue;
        {
            std::lock_guard<std::mutex> guard(mutex);
            link->peer_heard = true;
            ++link->to_port;
            note_heard(*link, sender);
        }
        send_to_port(link, frame);
    }
}

void Gateway::port_thread() {
    std::vector<char> buffer(kBufferSize, 0);
    std::vector<Socket> sockets;
    std::vector<bool> ready;
    while (!stopping) {
        std::map<Socket, std::shared_ptr<Link>> by_socket;
        {
            std::lock_guard<std::mutex> guard(mutex);
            for (auto& [id, link] : links)
                if (link->socket != invalid_socket) by_socket[link->socket] = link;
        }
        if (by_socket.empty()) {
            sleep_ms(50);
            continue;
        }
        sockets.clear();
        for (auto& [s, link] : by_socket) {
            if (sockets.size() == kMaxWaitSockets) break;
            sockets.push_back(s);
        }
        if (wait_readable(sockets, 100, ready) <= 0) continue;

        for (std::size_t i = 0; i < sockets.size(); ++i) {
            if (!ready[i]) continue;
            const std::shared_ptr<Link>& link = by_socket[sockets[i]];
            SockAddr from;
            int n = recv_from(sockets[i], buffer.data(), kBufferSize, &from);
            if (n < 0) continue;
            std::string frame;
            int kind = port_frame_to_peer(std::string_view(buffer.data(), static_cast<std::size_t>(n)), frame);

            std::vector<std::string> answers;
            Endpoint destination;
            {
                std::lock_guard<std::mutex> guard(mutex);
                if (link->socket == invalid_socket) continue;  // removed while we waited
                link->port_address = from_sockaddr(from);
                if (kind == 2) {
                    ++link->signaling;
                    answers = answer_control(link->hello, frame);
                } else if (kind == 1) {
                    ++link->to_peer;
                    destination = link->endpoint;
                }
            }
            if (kind == 1) send_to_peer(frame, destination);
            for (const auto& answer : answers) send_to_port(link, wrap_for_port(answer));
        }
    }
}

void Gateway::timer_thread() {
    double last_stun = -1000000000.0, last_punch = 0.0, last_hello = 0.0;
    while (!stopping) {
        sleep_ms(100);
        if (stopping) break;
        double now = steady_seconds();

        if (stun_server && now - last_stun >= stun_refresh) {
            last_stun = now;
            refresh_stun();
        }

        if (now - last_punch >= punch_interval) {
            last_punch = now;
            std::vector<Endpoint> destinations;
            {
                std::lock_guard<std::mutex> guard(mutex);
                for (auto& [id, link] : links) {
                    if (link->peer_heard || now - link->created > punch_window) continue;
                    // Behind the relay a punch opens nothing.
                    if (link->endpoint.usable() && behind_relay(relay, link->endpoint)) continue;
                    if (link->endpoint.usable()) destinations.push_back(link->endpoint);
                    if (link->local_endpoint.usable()) destinations.push_back(link->local_endpoint);
                }
            }
            for (const auto& d : destinations)
                send_to(public_socket, kPunch.data(), static_cast<int>(kPunch.size()), to_sockaddr(d));
        }

        if (now - last_hello >= hello_interval) {
            last_hello = now;
            std::vector<std::pair<std::shared_ptr<Link>, std::string>> hellos;
            {
                std::lock_guard<std::mutex> guard(mutex);
                for (auto& [id, link] : links) {
                    if (link->hello.port_answered || now - link->created > hello_window) continue;
                    hellos.emplace_back(link, hello_frame(link->hello));
                    const HelloRecord& h = link->hello;
                    if (h.room_id != 0 && h.port_member != 0 && h.peer_member != 0)
                        hellos.emplace_back(link, room_hello_frame(h));
                }
            }
            for (const auto& [link, frame] : hellos) send_to_port(link, wrap_for_port(frame));
        }
    }
}

}  // namespace zq::p2p
