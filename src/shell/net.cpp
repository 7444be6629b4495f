#include "shell/net.h"

#include <algorithm>

namespace zq {

Endpoint bound_endpoint(Socket s) {
    SockAddr address;
    return local_address(s, &address) ? from_sockaddr(address) : Endpoint{};
}

bool send_all(Socket s, std::string_view bytes) {
    while (!bytes.empty()) {
        const int n = send_some(s, bytes.data(), static_cast<int>(std::min<std::size_t>(bytes.size(), 0x7FFFFFFF)));
        if (n < 1) return false;
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

bool send_all(Socket s, std::string_view bytes, double deadline) {
    while (!bytes.empty()) {
        const double left = deadline - steady_seconds();
        if (left <= 0) return false;
        // Each call may block only for what is left of the whole.
        set_send_timeout(s, static_cast<int>(left * 1000) + 1);
        const int n = send_some(s, bytes.data(), static_cast<int>(std::min<std::size_t>(bytes.size(), 0x7FFFFFFF)));
        if (n < 1) return false;
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

bool serve_local_peer(PeerUser user, std::optional<std::uint32_t> their_session,
                      std::optional<std::uint32_t> our_session) {
    if (user != PeerUser::Unreadable) return user == PeerUser::Same;
    return their_session && our_session && *their_session == *our_session;
}

bool peer_user_check_works() {
    network_init();
    Socket listener = open_tcp_socket();
    Socket client = open_tcp_socket();
    Socket accepted = invalid_socket;
    if (bind_socket(listener, to_sockaddr(Endpoint{"127.0.0.1", 0})) && listen_socket(listener, 1)) {
        SockAddr at;
        // A loopback connect completes from the backlog, before anyone accepts it.
        if (local_address(listener, &at) && connect_socket(client, at)) accepted = accept_socket(listener);
    }
    const bool works = accepted != invalid_socket && peer_is_same_user(accepted);
    for (Socket s : {accepted, client, listener}) close_socket(s);
    return works;
}

bool datagram_user_check_works() {
    network_init();
    Socket s = open_udp_socket();
    const bool works = s != invalid_socket && bind_socket(s, to_sockaddr(Endpoint{"127.0.0.1", 0})) &&
                       datagram_sender_is_same_user(to_sockaddr(bound_endpoint(s)));
    close_socket(s);
    return works;
}

std::string local_ipv4() {
    network_init();
    Socket s = open_udp_socket();
    if (s == invalid_socket) return "127.0.0.1";
    // A connected UDP socket only fixes the route: nothing is sent to the probe address.
    SockAddr probe = to_sockaddr(Endpoint{"8.8.8.8", 80});
    SockAddr mine;
    std::string result = "127.0.0.1";
    if (connect_socket(s, probe) && local_address(s, &mine)) result = from_sockaddr(mine).host;
    close_socket(s);
    return result;
}

}  // namespace zq
