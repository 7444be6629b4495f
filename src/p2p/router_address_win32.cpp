#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>

#include <vector>

#include "p2p/port_mapping_codec.h"
#include "p2p/router_address.h"

namespace zq::p2p {

std::string default_router_ipv4() {
    ULONG size = 0;
    if (GetIpForwardTable(nullptr, &size, FALSE) != ERROR_INSUFFICIENT_BUFFER || size == 0) return "";
    std::vector<unsigned char> buffer(size);
    auto* table = reinterpret_cast<MIB_IPFORWARDTABLE*>(buffer.data());
    if (GetIpForwardTable(table, &size, FALSE) != NO_ERROR) return "";
    std::string best;
    DWORD best_metric = ~DWORD{0};
    for (DWORD i = 0; i < table->dwNumEntries; ++i) {
        const MIB_IPFORWARDROW& row = table->table[i];
        if (row.dwForwardDest != 0 || row.dwForwardMask != 0 || row.dwForwardNextHop == 0) continue;
        if (row.dwForwardMetric1 >= best_metric) continue;
        best_metric = row.dwForwardMetric1;
        best = ipv4_text(ntohl(row.dwForwardNextHop));
    }
    return best;
}

}  // namespace zq::p2p
