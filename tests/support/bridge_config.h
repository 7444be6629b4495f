#pragma once
// The configuration most bridge tests start from.

#include <string>

#include "shell/config.h"

namespace testing_support {

// Listeners on ports the system picks, no gateway, no port mapping and no game proxies; with a service URL, the
// velmar and community servers are that service.
inline zq::Config local_bridge_config(const std::string& service_url = "") {
    zq::Config c;
    c.tcp_port = c.udp_port = c.webapi_port = 0;
    c.p2p_gateway = false;
    // A test with a gateway and a STUN server must not ask this machine's router for a mapping.
    c.port_mapping = false;
    c.game_proxy_routes.clear();
    if (!service_url.empty()) c.velmar_server = c.community_server = service_url;
    return c;
}

}  // namespace testing_support
