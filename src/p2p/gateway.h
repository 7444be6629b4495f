#pragma once
// The peer-to-peer gateway: every remote room member is represented on this machine by one
// loopback UDP socket, and the game port is told that the member lives there. One public UDP
// socket faces the internet; three threads move datagrams between the two sides and keep the
// links open. With a STUN server, two more do what may be slow: resolving the server and
// sending it requests, and telling the owner of a new public address.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "p2p/framing.h"
#include "p2p/port_mapper.h"
#include "shell/net.h"
#include "shell/util.h"

namespace zq::p2p {

// Endpoints ordered by host text, then port.
struct EndpointOrder {
    bool operator()(const Endpoint& a, const Endpoint& b) const {
        return a.host != b.host ? a.host < b.host : a.port < b.port;
    }
};

// Opens an IPv4 UDP socket bound to host:port with ICMP port-unreachable reporting off, and
// fills bound with the address it got. invalid_socket on failure.
Socket bind_udp(const std::string& host, int port, Endpoint& bound);

// One row of links_snapshot.
struct LinkInfo {
    std::int32_t member_id = 0;
    std::string online_id;
    Endpoint endpoint;
    Endpoint port_sees;
    std::uint32_t peer_member = 0;
    std::uint32_t port_member = 0;
    std::uint64_t room_id = 0;
    std::uint64_t to_peer = 0;
    std::uint64_t to_port = 0;
    std::uint64_t signaling = 0;
    // For the player's status page.
    Endpoint local_endpoint;
    bool peer_heard = false;
    double last_heard = 0.0;    // steady_seconds of the last punch or frame from the peer; 0: never
    bool heard_on_lan = false;  // that one came from the peer's LAN address
    bool on_relay = false;      // the peer's address lies on the relay
};

// The router's port mapping, as the gateway holds it.
struct PortMappingInfo {
    MappingProtocol protocol = MappingProtocol::Pcp;
    Endpoint external;
    std::uint32_t lifetime = 0;  // seconds granted; 0: until deleted
    double granted = 0.0;        // steady_seconds of the last grant or renewal
    bool used = false;           // it is the public address that we report
    std::string unused_because;  // why not, when it is not
};

class Gateway {
public:
    // One remote member. Every field is guarded by the gateway's mutex.
    struct Link {
        std::int32_t member_id = 0;  // negative: provisional, before the member is in the room
        std::string online_id;
        Endpoint endpoint;           // where data goes; rewritten by address learning
        Endpoint local_endpoint;     // the member's LAN address
        std::set<Endpoint, EndpointOrder> known_addresses;
        std::optional<Endpoint> port_address;  // where the local port sends from
        HelloRecord hello;
        Socket socket = invalid_socket;  // bound to 127.0.0.1; invalid once closed
        Endpoint port_sees;              // 127.0.0.1 and that socket's port
        bool peer_heard = false;
        double created = 0.0;
        double last_keepalive = 0.0;  // steady_seconds of the last keepalive punch
        // Counted by the data path once per batch without the mutex; read with it or without.
        std::atomic<std::uint64_t> to_peer{0};
        std::atomic<std::uint64_t> to_port{0};
        std::uint64_t signaling = 0;
        // Written by peer_thread on each datagram, read by the status page: relaxed atomics, so
        // they never need a lock of their own in the data path.
        std::atomic<double> last_heard{0.0};
        std::atomic<bool> heard_on_lan{false};

        Link() = default;
        Link(const Link&) = delete;
        Link& operator=(const Link&) = delete;
        ~Link();

        // Marks the socket invalid; the handle itself is closed with the last reference, so a
        // thread still waiting or receiving on it never sees its number reused by a new link.
        void close_socket_locked();

    private:
        Socket retired_socket = invalid_socket;
    };

    struct Relay {
        Endpoint server;    // the STUN server's resolved host and port
        std::string token;  // 8 bytes
        std::int32_t port = 0;  // our port on the relay
    };

    double punch_interval = 0.5;
    double punch_window = 20.0;
    double hello_interval = 1.0;
    double hello_window = 30.0;
    // A heard link whose peer has been silent this long gets one punch this often, so that a
    // router that forgets idle mappings keeps the path open through a pause. 0: never.
    double keepalive_interval = 15.0;
    // A heard peer is followed to another port of its host only once it has been silent this
    // long where it was: while it speaks there, nobody else at its host can take the link.
    double rebind_silence = 2.0;
    double stun_refresh = 15.0;  // overwritten by the owner before start
    // Whether a link learns the game's side only from programs of this user; start sets it to
    // whether the system can tell.
    bool check_port_users = false;
    std::int32_t port = 0;       // asked for; start replaces it with the port bound
    // Port mapping on the home router, turned on by the owner before start. It runs only with a
    // STUN server: what STUN sees of us decides whether a mapping is worth reporting.
    bool port_mapping = false;
    std::uint32_t mapping_lifetime = 7200;  // asked for; renewed at half of what is granted
    double mapping_check = 60.0;            // between checks that the router still holds it
    std::vector<MappingProtocol> mapping_protocols{MappingProtocol::Pcp, MappingProtocol::NatPmp,
                                                   MappingProtocol::Upnp};
    // Whom to ask: empty, the default gateway when it has a private address, at kPortMappingServerPort.
    std::optional<Endpoint> mapping_router;
    // What a broken or hostile router (or STUN server) can make us do. Honest ones never reach
    // these bounds; tests lower them.
    // A home router keeps even an idle UDP mapping for two minutes or more, and grants leases of
    // minutes to hours (we ask for 7200 s). A lease under a minute is a broken or hostile
    // router's: it is renewed no sooner than this, however short, so the router cannot set our pace.
    double mapping_renew_floor = 30.0;
    // Each new public address costs one call to the service per logged-in game. The first few
    // are told at once (STUN's first answer and a fresh mapping come seconds apart); beyond them,
    // one per announce_interval, the latest address winning: as often as the floor above lets a
    // mapping move.
    double announce_interval = 30.0;
    int announce_burst = 3;
    const std::optional<Endpoint> stun_server;
    const std::string lan_host;
    const std::function<void(const Endpoint&)> on_mapped_change;

    Gateway(std::int32_t port, std::optional<Endpoint> stun_server, std::string lan_host,
            std::function<void(const Endpoint&)> on_mapped_change);
    ~Gateway();
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    bool start(std::string* error);
    void stop();

    // What the port must be told for this member: port_sees of his link.
    Endpoint add_member(std::int32_t member_id, const std::string& online_id, const Endpoint& endpoint,
                        const Endpoint& local_endpoint, const std::string& port_online_id,
                        std::int32_t port_member_id, std::uint64_t room_id,
                        const std::optional<Endpoint>& port_endpoint);
    void remove_member(std::int32_t member_id);
    void remove_all_members();
    void retain_members(const std::set<std::string>& online_ids);

    // (LAN endpoint, public endpoint); the public one is the port mapping's address while it is
    // used, otherwise the mapped address once known.
    std::pair<Endpoint, Endpoint> own_endpoints() const;
    std::optional<Endpoint> port_address_of(const std::string& online_id) const;
    std::optional<Endpoint> mapped_address() const;
    std::int32_t relay_port() const;
    std::vector<LinkInfo> links_snapshot() const;

    // The router's port mapping as last granted.
    std::optional<PortMappingInfo> port_mapping_info() const;

    // The data path's own copy of what it needs of the links and the relay (data_path.cpp).
    struct Route;
    struct Routes;

private:
    void peer_thread();
    void port_thread();
    void timer_thread();
    void stun_thread();
    void report_thread();
    void mapping_thread();

    void send_to_port(const std::shared_ptr<Link>& link, const std::string& frame);
    // Expects the mutex held. Finds the link of a sender that is not its endpoint or LAN address:
    // an address that the link knew before, or a new port of the one link at the sender's host.
    // Before the peer is heard only a punch teaches a new port; after, a punch or a well-formed
    // data frame (frame) does, once the peer has been silent for rebind_silence. Never at the
    // relay's host, which every relayed peer shares.
    std::shared_ptr<Link> find_link_from(const Endpoint& sender, bool punch, bool frame);

    void refresh_stun();
    void on_stun_answer(std::string_view datagram);

    // What we report as our public address: a used port mapping, otherwise what STUN sees.
    std::optional<Endpoint> public_address_locked() const;
    // Settles whether the mapping is used; returns the new public address when it moved since
    // it was last told to the owner, who is then to be told (tell_owner, mutex released).
    std::optional<Endpoint> settle_public_address_locked();
    void tell_owner(const Endpoint& address);
    // The mapping thread's share: a new grant, or none.
    void set_port_mapping(const std::optional<PortMappingGrant>& grant);

    // Each data path thread keeps a copy of the links and the relay, taken anew under the
    // mutex whenever routes_version has moved, so that a datagram costs no lock. Whatever
    // changes an address, a socket or the relay bumps the version under the mutex.
    void routes_changed_locked() { routes_version.fetch_add(1, std::memory_order_release); }
    void copy_routes_locked(Routes& into) const;
    // Wakes port_thread from its wait, to take in a new set of link sockets or to stop.
    void wake_port_thread();

    Socket public_socket = invalid_socket;
    Socket wake_socket = invalid_socket;  // port_thread waits on it beside the link sockets
    Endpoint wake_address;

    // The innermost lock but the log's: never held across a send, a receive or the callback.
    mutable std::mutex mutex;
    std::map<std::int32_t, std::shared_ptr<Link>> links;
    std::optional<Endpoint> mapped;
    std::optional<PortMappingInfo> mapping;
    std::optional<Endpoint> reported;  // the public address last handed to the owner
    std::optional<Relay> relay;
    std::string stun_transaction;  // cookie and transaction id of the last request, or empty
    Endpoint stun_target;          // resolved address of the last request
    std::atomic<std::uint64_t> routes_version{1};
    // timer_thread sleeps on it, with the mutex, until a pass is due or the links change.
    std::condition_variable timer_signal;

    // New public addresses for report_thread to hand to on_mapped_change, in order while
    // announce_burst allows, else only the latest. stun_thread,
    // report_thread and mapping_thread sleep on stun_signal with stun_lock, which is never held
    // together with the mutex.
    std::mutex stun_lock;
    std::condition_variable stun_signal;
    std::deque<Endpoint> mapped_changes;
    static constexpr std::size_t kMaxMappedChanges = 16;

    std::atomic<bool> stopping{false};
    std::vector<std::thread> threads;  // declared after the sockets they use
};

}  // namespace zq::p2p
