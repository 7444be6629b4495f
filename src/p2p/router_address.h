#pragma once
// Where the home router is: the next hop of the default IPv4 route, whom the gateway asks for a
// port mapping.

#include <string>

namespace zq::p2p {

// Dotted IPv4 text of the default route's gateway, or "" when there is none.
std::string default_router_ipv4();

}  // namespace zq::p2p
