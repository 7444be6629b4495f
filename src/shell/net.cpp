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
