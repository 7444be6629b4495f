#include <fstream>
#include <sstream>

#include "p2p/port_mapping_codec.h"
#include "p2p/router_address.h"

namespace zq::p2p {

std::string default_router_ipv4() {
    // Columns: Iface Destination Gateway Flags RefCnt Use Metric Mask ..., addresses in hex as
    // the kernel keeps them (network order read as a little-endian number).
    // The calling thread's own network namespace, which /proc/net (the process's) need not be.
    std::ifstream routes("/proc/thread-self/net/route");
    if (!routes) routes.open("/proc/net/route");
    std::string line;
    std::getline(routes, line);
    std::string best;
    unsigned long best_metric = ~0UL;
    while (std::getline(routes, line)) {
        std::istringstream fields(line);
        std::string iface;
        unsigned long destination = 0, gateway = 0, flags = 0, refcnt = 0, use = 0, metric = 0, mask = 0;
        fields >> iface >> std::hex >> destination >> gateway >> flags >> std::dec >> refcnt >> use >> metric >> std::hex >> mask;
        constexpr unsigned long kUp = 0x1, kGateway = 0x2;
        if (!fields || destination != 0 || mask != 0 || (flags & (kUp | kGateway)) != (kUp | kGateway)) continue;
        if (metric >= best_metric) continue;
        best_metric = metric;
        const auto g = static_cast<std::uint32_t>(gateway);
        best = ipv4_text((g & 0xFF) << 24 | ((g >> 8) & 0xFF) << 16 | ((g >> 16) & 0xFF) << 8 | (g >> 24));
    }
    return best;
}

}  // namespace zq::p2p
