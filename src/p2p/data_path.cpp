// The threads that move datagrams between the game port and the peers, and the one that keeps
// the links open with punches and hellos.
//
// A datagram is received into a slot with free bytes before it, converted there and sent from
// there: nothing is copied or allocated on its way through. Where the system has batch calls a
// wake-up takes in every datagram that is queued and sends them out together. The links are
// read from each thread's own copy (Routes), refreshed when routes_version moves, so the mutex
// is taken only when something changes: a new port address, a peer heard for the first time,
// an address learned, a control frame.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <new>

#include "p2p/gateway.h"
#include "p2p/stun.h"
#include "shell/log.h"
#include "shell/platform.h"

namespace zq::p2p {

namespace {

constexpr int kBufferSize = 65536;
// Room before each datagram for what conversion puts in front of it: a wide peer header is two
// bytes longer than a port header, and the relay's header adds twelve.
constexpr std::size_t kHeadroom = 16;
static_assert(kHeadroom >= kPeerHeaderGrowth + kRelayHeaderSize);
constexpr int kBatch = 32;
constexpr std::size_t kMaxWaitSockets = 64;
// Addresses one link keeps from learning, so that traffic can flip back to one of them.
constexpr std::size_t kMaxKnownAddresses = 8;

// A peer that lives on the relay is known by the relay's host and the port of its allocation;
// the relay's own address is its control channel and is never wrapped.
bool behind_relay(const std::optional<Gateway::Relay>& relay, const Endpoint& destination) {
    return relay && destination.host == relay->server.host && destination.port != relay->server.port;
}

// Only an address whose text comes back unchanged from the socket form can equal a sender's,
// which is always written as dotted text.
bool matchable(const Endpoint& e) { return e.usable() && from_sockaddr(to_sockaddr(e)) == e; }

// One thread's receive slots: a batch of datagrams of up to kBufferSize bytes, each behind
// kHeadroom free bytes. The memory comes zeroed from calloc without being touched, so only the
// pages that datagrams reach count towards the process's resident size.
class Slots {
public:
    Slots() : count_(std::min(kBatch, udp_batch_limit())) {
        const std::size_t stride = kHeadroom + kBufferSize;
        memory_ = static_cast<char*>(std::calloc(static_cast<std::size_t>(count_), stride));
        if (!memory_) throw std::bad_alloc();
        messages_.resize(static_cast<std::size_t>(count_));
        for (int i = 0; i < count_; ++i) {
            messages_[static_cast<std::size_t>(i)].data = memory_ + static_cast<std::size_t>(i) * stride + kHeadroom;
            messages_[static_cast<std::size_t>(i)].capacity = kBufferSize;
        }
    }
    ~Slots() { std::free(memory_); }
    Slots(const Slots&) = delete;
    Slots& operator=(const Slots&) = delete;

    UdpMessage* messages() { return messages_.data(); }
    int count() const { return count_; }

private:
    int count_;
    char* memory_ = nullptr;
    std::vector<UdpMessage> messages_;
};

}  // namespace

// One link as the data path sees it. The shared reference keeps the link's socket open (a
// removed link's socket is closed with its last reference) for as long as this copy lives.
struct Gateway::Route {
    std::shared_ptr<Link> link;
    Socket socket = invalid_socket;
    SockAddr endpoint;
    bool endpoint_matchable = false;
    bool endpoint_usable = false;
    int endpoint_port = 0;
    bool via_relay = false;
    SockAddr local;
    bool local_matchable = false;
    std::vector<SockAddr> known;
    SockAddr port_address;
    bool port_known = false;
    // The last sender that was no program of this user, and when the next new sender may be
    // looked up: each look-up reads the system's socket table.
    SockAddr refused;
    bool refused_known = false;
    double next_lookup = 0.0;
    bool peer_heard = false;
    // This batch's tally, handed to the link before anything of the batch is sent.
    std::uint64_t counted = 0;
    bool heard = false;
    bool heard_on_lan = false;
};

struct Gateway::Routes {
    std::uint64_t version = 0;
    std::vector<Route> routes;  // by ascending member id
    bool relay_on = false;
    SockAddr relay_server;
    std::string relay_token;
};

void Gateway::copy_routes_locked(Routes& into) const {
    into.version = routes_version.load(std::memory_order_acquire);
    into.relay_on = relay.has_value();
    if (relay) {
        into.relay_server = to_sockaddr(relay->server);
        into.relay_token = relay->token;
    }
    into.routes.clear();
    for (const auto& [id, link] : links) {
        Route& r = into.routes.emplace_back();
        r.link = link;
        r.socket = link->socket;
        r.endpoint = to_sockaddr(link->endpoint);
        r.endpoint_matchable = matchable(link->endpoint);
        r.endpoint_usable = link->endpoint.usable();
        r.endpoint_port = link->endpoint.port;
        r.via_relay = r.endpoint_usable && behind_relay(relay, link->endpoint);
        r.local = to_sockaddr(link->local_endpoint);
        r.local_matchable = matchable(link->local_endpoint);
        for (const auto& e : link->known_addresses)
            if (matchable(e)) r.known.push_back(to_sockaddr(e));
        r.port_known = link->port_address.has_value();
        if (link->port_address) r.port_address = to_sockaddr(*link->port_address);
        r.peer_heard = link->peer_heard;
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

std::shared_ptr<Gateway::Link> Gateway::find_link_from(const Endpoint& sender, bool punch, bool frame) {
    const double now = steady_seconds();
    // A heard peer that still speaks where it is keeps its link: whoever else sends from its
    // host (another player behind the same NAT, or a port the NAT handed to someone else) is
    // not it.
    auto may_move = [&](const Link& link) {
        if (!link.peer_heard) return punch;
        return (punch || frame) && now - link.last_heard.load(std::memory_order_relaxed) >= rebind_silence;
    };
    auto move = [&](Link& link) {
        if (link.peer_heard)
            log_limited("p2p peer moved", format_text("p2p: member %d (%s) moved from %s to %s", link.member_id,
                                                      link.online_id.c_str(), link.endpoint.text().c_str(),
                                                      sender.text().c_str()));
        link.endpoint = sender;
    };
    for (auto& [id, link] : links) {
        if (sender == link->endpoint || sender == link->local_endpoint) return link;
        if (!link->known_addresses.count(sender)) continue;
        // Traffic follows the address that the peer used last.
        if (!may_move(*link)) return nullptr;
        move(*link);
        return link;
    }
    // A NAT that gave the peer a new port. Anyone behind the peer's NAT shares its host, so it is
    // safe to follow at all only when one link has this host, and only with the proof above.
    // Every peer on the relay shares its host: there only the peer's own allocation counts.
    if ((relay && sender.host == relay->server.host) || (stun_target.usable() && sender.host == stun_target.host))
        return nullptr;
    std::shared_ptr<Link> only;
    int count = 0;
    for (auto& [id, link] : links) {
        if (link->endpoint.usable() && link->endpoint.host == sender.host) {
            only = link;
            ++count;
        }
    }
    if (count != 1 || !may_move(*only)) return nullptr;
    // A NAT that rebinds now and then stays followed, and nobody can grow a link without end.
    if (only->known_addresses.size() + 2 > kMaxKnownAddresses) only->known_addresses.clear();
    only->known_addresses.insert(only->endpoint);
    only->known_addresses.insert(sender);
    if (!only->peer_heard)
        log_limited("p2p address learned", format_text("p2p: member %d (%s) also at %s", only->member_id,
                                                       only->online_id.c_str(), sender.text().c_str()));
    move(*only);
    return only;
}

namespace {

// The route of a sender that needs no change: its endpoint, or its LAN address. A sender among
// a link's other known addresses moves that link's endpoint, and a sender that matches nothing
// may be a peer at a new port: both are left to find_link_from under the mutex.
Gateway::Route* quick_match(Gateway::Routes& routes, const SockAddr& sender) {
    for (auto& r : routes.routes) {
        if (r.endpoint_matchable && same_address(sender, r.endpoint)) return &r;
        for (const auto& k : r.known)
            if (same_address(sender, k)) return nullptr;
        if (r.local_matchable && same_address(sender, r.local)) return &r;
    }
    return nullptr;
}

}  // namespace

void Gateway::peer_thread() {
    Slots in;
    std::vector<UdpMessage> out(static_cast<std::size_t>(in.count()));
    std::vector<Socket> out_socket(out.size());
    Routes routes;
    int pending = 0;

    // Hands the batch's tallies to the links, then sends what is ready for the port, one batch
    // call per run of datagrams that leave by the same link socket.
    auto flush = [&] {
        double now = 0.0;
        for (auto& r : routes.routes) {
            if (r.counted) r.link->to_port.fetch_add(r.counted, std::memory_order_relaxed);
            if (r.heard) {
                if (now == 0.0) now = steady_seconds();
                r.link->last_heard.store(now, std::memory_order_relaxed);
                r.link->heard_on_lan.store(r.heard_on_lan, std::memory_order_relaxed);
            }
            r.counted = 0;
            r.heard = false;
        }
        for (int from = 0; from < pending;) {
            int to = from + 1;
            while (to < pending && out_socket[static_cast<std::size_t>(to)] == out_socket[static_cast<std::size_t>(from)]) ++to;
            send_batch(out_socket[static_cast<std::size_t>(from)], out.data() + from, to - from);
            from = to;
        }
        pending = 0;
    };

    while (!stopping) {
        const int n = recv_batch(public_socket, in.messages(), in.count());
        // The wake-up datagram of stop must not be taken for a peer.
        if (n <= 0 || stopping) continue;
        if (routes_version.load(std::memory_order_acquire) != routes.version) {
            std::lock_guard<std::mutex> guard(mutex);
            copy_routes_locked(routes);
        }

        for (int i = 0; i < n; ++i) {
            UdpMessage& m = in.messages()[i];
            SockAddr sender = m.address;
            char* data = m.data;
            std::size_t size = static_cast<std::size_t>(m.size);
            if (routes.relay_on && same_address(sender, routes.relay_server)) {
                int source_port = 0;
                std::string_view payload;
                // Anything else from the relay stays as it is: binding answers come this way.
                if (relay_frame_from_server(std::string_view(data, size), source_port, payload)) {
                    data += size - payload.size();
                    size = payload.size();
                    sender = with_port(routes.relay_server, source_port);
                }
            }
            const std::string_view datagram(data, size);

            if (size >= 20 && datagram[0] == 0x01 && datagram[1] == 0x01) {
                // Only the server that was asked may answer; a guessed transaction from anywhere
                // else would set our public address and the relay.
                bool from_server;
                {
                    std::lock_guard<std::mutex> guard(mutex);
                    from_server = stun_target.usable() && from_sockaddr(sender) == stun_target;
                }
                if (from_server) on_stun_answer(datagram);
                continue;
            }

            const bool punch = is_punch(datagram);
            Route* route = quick_match(routes, sender);
            if (!route) {
                // What was converted so far leaves first: the copy of the routes is about to be
                // replaced, and with it the references that keep those sockets open.
                flush();
                // Only our own framing proves a peer at another address; anything else is dropped
                // below all the same.
                std::string unused;
                const bool frame = !punch && peer_frame_to_port(datagram, unused);
                std::lock_guard<std::mutex> guard(mutex);
                std::shared_ptr<Link> link = find_link_from(from_sockaddr(sender), punch, frame);
                if (!link) continue;  // nothing from strangers reaches the port
                routes_changed_locked();
                copy_routes_locked(routes);
                for (auto& r : routes.routes)
                    if (r.link == link) route = &r;
                if (!route) continue;
            }

            if (!punch) {
                std::string_view frame;
                if (!peer_frame_to_port_in_place(data, size, frame)) continue;
                ++route->counted;
                if (route->socket != invalid_socket && route->port_known) {
                    const auto at = static_cast<std::size_t>(pending++);
                    out[at].data = const_cast<char*>(frame.data());
                    out[at].size = static_cast<int>(frame.size());
                    out[at].address = route->port_address;
                    out_socket[at] = route->socket;
                }
            }
            route->heard = true;
            route->heard_on_lan = route->local_matchable && same_address(sender, route->local);
            // A punch only opens the NAT; both sides send their own, so it is never answered.
            if (!route->peer_heard) {
                std::lock_guard<std::mutex> guard(mutex);
                // Heard, and by which way, become known together: a look in between would take
                // a LAN peer for a direct one.
                route->link->heard_on_lan.store(route->heard_on_lan, std::memory_order_relaxed);
                route->link->peer_heard = true;
                route->peer_heard = true;
                // From now on the link is kept open through silences.
                route->link->last_heard.store(steady_seconds(), std::memory_order_relaxed);
                timer_signal.notify_all();
            }
        }
        flush();
    }
}

void Gateway::port_thread() {
    Slots in;
    std::vector<UdpMessage> out(static_cast<std::size_t>(in.count()));
    Routes routes;
    std::vector<Socket> waited;         // the wake socket first, when there is one
    std::vector<std::size_t> route_of;  // for each waited socket, its route
    std::vector<bool> ready;
    const bool can_wake = wake_socket != invalid_socket;

    while (!stopping) {
        if (routes_version.load(std::memory_order_acquire) != routes.version) {
            std::lock_guard<std::mutex> guard(mutex);
            copy_routes_locked(routes);
        }
        waited.clear();
        route_of.clear();
        if (can_wake) {
            waited.push_back(wake_socket);
            route_of.push_back(0);
        }
        for (std::size_t r = 0; r < routes.routes.size() && waited.size() < kMaxWaitSockets + can_wake; ++r) {
            if (routes.routes[r].socket == invalid_socket) continue;
            waited.push_back(routes.routes[r].socket);
            route_of.push_back(r);
        }
        if (waited.empty()) {
            sleep_ms(50);
            continue;
        }
        // With the wake socket there is no reason to look before something arrives.
        if (wait_readable(waited, can_wake ? -1 : 100, ready) <= 0) continue;
        if (stopping) break;
        if (can_wake && ready[0]) recv_batch(wake_socket, in.messages(), in.count());
        // The sockets waited on may be gone; a new wait on the new set sees what is still there.
        if (routes_version.load(std::memory_order_acquire) != routes.version) continue;

        for (std::size_t w = can_wake ? 1 : 0; w < waited.size(); ++w) {
            if (!ready[w]) continue;
            Route& route = routes.routes[route_of[w]];
            const int n = recv_batch(waited[w], in.messages(), in.count());
            if (n <= 0) continue;
            int pending = 0;
            for (int i = 0; i < n; ++i) {
                UdpMessage& m = in.messages()[i];
                // That is how the gateway learns, or relearns, where the port really is.
                if (!route.port_known || !same_address(m.address, route.port_address)) {
                    // Programs of other users of this PC reach the loopback too: the game's
                    // side is learned only from a program of this user, where the system tells.
                    if (check_port_users) {
                        if (route.refused_known && same_address(m.address, route.refused)) continue;
                        const double now = steady_seconds();
                        if (now < route.next_lookup) continue;
                        route.next_lookup = now + 0.05;
                        if (!datagram_sender_is_same_user(m.address)) {
                            route.refused = m.address;
                            route.refused_known = true;
                            log_limited("p2p other user", "p2p: ignored datagrams from " + from_sockaddr(m.address).text() +
                                                              ", a program of another user");
                            continue;
                        }
                    }
                    std::lock_guard<std::mutex> guard(mutex);
                    route.link->port_address = from_sockaddr(m.address);
                    routes_changed_locked();
                    route.port_known = true;
                    route.port_address = m.address;
                }
                std::string_view frame;
                const int kind = port_frame_to_peer_in_place(m.data, static_cast<std::size_t>(m.size), frame);
                if (kind == 1) {
                    ++route.counted;
                    if (!route.endpoint_usable) continue;
                    UdpMessage& o = out[static_cast<std::size_t>(pending++)];
                    char* at = m.data + (frame.data() - m.data);
                    if (route.via_relay) {
                        frame = relay_frame_to_server_in_place(routes.relay_token, route.endpoint_port, at, frame.size());
                        o.address = routes.relay_server;
                    } else {
                        o.address = route.endpoint;
                    }
                    o.data = const_cast<char*>(frame.data());
                    o.size = static_cast<int>(frame.size());
                } else if (kind == 2) {
                    std::vector<std::string> answers;
                    {
                        std::lock_guard<std::mutex> guard(mutex);
                        ++route.link->signaling;
                        answers = answer_control(route.link->hello, frame);
                    }
                    for (const auto& answer : answers) send_to_port(route.link, wrap_for_port(answer));
                }
            }
            if (route.counted) route.link->to_peer.fetch_add(route.counted, std::memory_order_relaxed);
            route.counted = 0;
            send_batch(public_socket, out.data(), pending);
        }
    }
}

void Gateway::timer_thread() {
    double last_punch = 0.0, last_hello = 0.0;
    // A tenth of a second at least between passes, whatever the fields say.
    const double punch_every = std::max(punch_interval, 0.1), hello_every = std::max(hello_interval, 0.1);
    const double keepalive_every = keepalive_interval > 0.0 ? std::max(keepalive_interval, 0.1) : 0.0;
    // When a heard link is next due for a keepalive: its peer silent and the last one long enough ago.
    auto keepalive_due = [&](const Link& link) {
        return std::max(link.last_heard.load(std::memory_order_relaxed), link.last_keepalive) + keepalive_every;
    };
    auto wants_keepalive = [&](const Link& link) {
        // Behind the relay our STUN refresh already keeps the one path open.
        return keepalive_every > 0.0 && link.peer_heard && link.endpoint.usable() && !behind_relay(relay, link.endpoint);
    };
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        const double now = steady_seconds();
        std::vector<Endpoint> destinations;
        std::vector<std::pair<std::shared_ptr<Link>, std::string>> hellos;

        if (now - last_punch >= punch_every) {
            last_punch = now;
            for (auto& [id, link] : links) {
                if (link->peer_heard || now - link->created > punch_window) continue;
                // Behind the relay a punch opens nothing.
                if (link->endpoint.usable() && behind_relay(relay, link->endpoint)) continue;
                if (link->endpoint.usable()) destinations.push_back(link->endpoint);
                if (link->local_endpoint.usable()) destinations.push_back(link->local_endpoint);
            }
        }
        for (auto& [id, link] : links) {
            if (!wants_keepalive(*link) || now < keepalive_due(*link)) continue;
            link->last_keepalive = now;
            destinations.push_back(link->endpoint);
        }
        if (now - last_hello >= hello_every) {
            last_hello = now;
            for (auto& [id, link] : links) {
                if (link->hello.port_answered || now - link->created > hello_window) continue;
                hellos.emplace_back(link, hello_frame(link->hello));
                const HelloRecord& h = link->hello;
                if (h.room_id != 0 && h.port_member != 0 && h.peer_member != 0)
                    hellos.emplace_back(link, room_hello_frame(h));
            }
        }
        if (!destinations.empty() || !hellos.empty()) {
            lock.unlock();
            for (const auto& d : destinations)
                send_to(public_socket, kPunch.data(), static_cast<int>(kPunch.size()), to_sockaddr(d));
            for (const auto& [link, frame] : hellos) send_to_port(link, wrap_for_port(frame));
            lock.lock();
            continue;
        }

        // Sleep until the next pass that has something to do: punches while a link is young and
        // its peer unheard, hellos while it is young and the port silent, a keepalive once a
        // heard peer falls silent. add_member wakes us; a peer that speaks meanwhile only moves
        // its keepalive on, which the next wake-up finds.
        double next = std::numeric_limits<double>::infinity();
        for (auto& [id, link] : links) {
            const double age = now - link->created;
            if (!link->peer_heard && age <= punch_window) next = std::min(next, last_punch + punch_every);
            if (!link->hello.port_answered && age <= hello_window) next = std::min(next, last_hello + hello_every);
            if (wants_keepalive(*link)) next = std::min(next, keepalive_due(*link));
        }
        if (next == std::numeric_limits<double>::infinity()) {
            timer_signal.wait(lock);
        } else {
            timer_signal.wait_until(lock, std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                                            std::chrono::duration<double>(next - now)));
        }
    }
}

}  // namespace zq::p2p
