#include "p2p/port_mapper.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <miniupnpc/miniupnpc.h>
#include <miniupnpc/upnpcommands.h>

#include "p2p/port_mapping_codec.h"
#include "p2p/router_address.h"
#include "shell/net.h"
#include "shell/platform.h"

namespace zq::p2p {

namespace {

constexpr int kFirstWaitMs = 250;
constexpr int kTries = 3;          // 250 ms, 500 ms, 1 s: a router on the LAN answers in far less
constexpr int kUpnpDiscoverMs = 1000;
constexpr const char* kUpnpDescription = "sarnlink";
// UPnP error codes of AddPortMapping that a lease other than 0 brings.
constexpr int kUpnpOnlyPermanentLeases = 725;
constexpr int kUpnpInvalidArgs = 402;
constexpr int kUpnpConflict = 718;

}  // namespace

const char* protocol_name(MappingProtocol protocol) {
    switch (protocol) {
    case MappingProtocol::Pcp: return "PCP";
    case MappingProtocol::NatPmp: return "NAT-PMP";
    case MappingProtocol::Upnp: return "UPnP";
    }
    return "?";
}

// A UPnP router that discovery found, with what miniupnpc needs to call it.
struct PortMapper::Upnp {
    UPNPUrls urls{};
    IGDdatas data{};
    char lan_address[64] = {};
    std::string external_host;

    ~Upnp() { FreeUPNPUrls(&urls); }
    const char* control() const { return urls.controlURL; }
    const char* service() const { return data.first.servicetype; }
};

std::string mapping_unused_because(const Endpoint& external, const std::optional<Endpoint>& stun_seen) {
    const std::optional<std::uint32_t> address = parse_ipv4(external.host);
    const AddressKind kind = address ? classify_ipv4(*address) : AddressKind::Unusable;
    if (kind == AddressKind::Private) return "a private address: another router stands in front of this one";
    if (kind == AddressKind::CarrierGrade)
        return "a carrier-grade NAT address: the provider's NAT stands in front of this router";
    if (kind == AddressKind::Unusable || !external.usable()) return "no public address";
    if (!stun_seen) return "STUN has not seen us yet";
    if (stun_seen->host != external.host) return "STUN sees us at " + stun_seen->host;
    return "";
}

std::optional<Endpoint> home_router(std::string& why) {
    const std::string found = default_router_ipv4();
    const std::optional<std::uint32_t> address = parse_ipv4(found);
    if (!address) {
        why = "no default gateway";
        return std::nullopt;
    }
    const AddressKind kind = classify_ipv4(*address);
    if (kind != AddressKind::Private && kind != AddressKind::CarrierGrade) {
        why = "the default gateway " + found + " is no home router";
        return std::nullopt;
    }
    return Endpoint{found, kPortMappingServerPort};
}

PortMapper::PortMapper(Endpoint router, int internal_port, const std::atomic<bool>& stopping)
    : router_(std::move(router)), internal_port_(internal_port), stopping_(stopping) {
    secure_random(nonce_.data(), nonce_.size());
}

PortMapper::~PortMapper() = default;

template <typename Accept>
std::optional<std::string> PortMapper::exchange(const std::string& request, Accept accept, int tries) {
    Socket s = open_udp_socket();
    if (s == invalid_socket) return std::nullopt;
    disable_udp_connreset(s);
    std::optional<std::string> answer;
    // Connected, so that only the router's answers come in.
    if (connect_socket(s, to_sockaddr(router_))) {
        std::vector<bool> ready;
        char buffer[1100];
        int wait_ms = kFirstWaitMs;
        for (int attempt = 0; attempt < tries && !answer; ++attempt, wait_ms *= 2) {
            send_some(s, request.data(), static_cast<int>(request.size()));
            const double deadline = steady_seconds() + wait_ms / 1000.0;
            while (!answer) {
                const double left = deadline - steady_seconds();
                if (left <= 0.0) break;
                // Stop is noticed within a tenth of a second.
                if (wait_readable({s}, std::min(100, static_cast<int>(left * 1000.0) + 1), ready) < 1) {
                    if (tries > 1 && stopping_) break;
                    continue;
                }
                const int n = recv_some(s, buffer, sizeof buffer);
                if (n > 0 && accept(std::string_view(buffer, static_cast<std::size_t>(n))))
                    answer = std::string(buffer, static_cast<std::size_t>(n));
            }
            if (tries > 1 && stopping_) break;
        }
    }
    close_socket(s);
    return answer;
}

std::uint32_t PortMapper::client_ipv4() {
    if (client_ipv4_ != 0) return client_ipv4_;
    Socket s = open_udp_socket();
    if (s == invalid_socket) return 0;
    // A connected datagram socket names the address that the route to the router leaves from.
    if (connect_socket(s, to_sockaddr(router_)))
        client_ipv4_ = parse_ipv4(bound_endpoint(s).host).value_or(0);
    close_socket(s);
    return client_ipv4_;
}

bool PortMapper::note_epoch(std::uint32_t epoch) {
    const double now = steady_seconds();
    const bool restarted = epoch_ && epoch_says_restart(*epoch_, epoch_time_, epoch, now);
    epoch_ = epoch;
    epoch_time_ = now;
    return restarted;
}

std::optional<PortMappingGrant> PortMapper::ask_pcp(std::uint32_t lifetime, int external_port, bool& restarted) {
    const std::uint32_t client = client_ipv4();
    if (client == 0) return std::nullopt;
    const std::string request = pcp_map_request(nonce_, client, internal_port_, external_port, lifetime);
    // A server of NAT-PMP alone answers with its own version: no PCP here.
    auto accept = [&](std::string_view d) {
        auto a = parse_mapping_answer(d);
        return a && (a->version == kNatPmpVersion ||
                     (a->version == kPcpVersion && a->opcode == kPcpOpMap && a->nonce == nonce_));
    };
    auto bytes = exchange(request, accept, lifetime == 0 ? 1 : kTries);
    if (!bytes) return std::nullopt;
    MappingAnswer a = *parse_mapping_answer(*bytes);
    if (a.version != kPcpVersion || a.result != kResultSuccess) return std::nullopt;
    restarted = note_epoch(a.epoch);
    return PortMappingGrant{MappingProtocol::Pcp, Endpoint{ipv4_text(a.external_ipv4), a.external_port}, a.lifetime};
}

std::optional<PortMappingGrant> PortMapper::ask_natpmp(std::uint32_t lifetime, int external_port, bool& restarted) {
    const int tries = lifetime == 0 ? 1 : kTries;
    std::string host;
    if (lifetime != 0) {
        auto address = exchange(natpmp_address_request(), [](std::string_view d) {
            auto a = parse_mapping_answer(d);
            return a && a->version == kNatPmpVersion && a->opcode == kNatPmpOpAddress;
        }, tries);
        if (!address) return std::nullopt;
        MappingAnswer a = *parse_mapping_answer(*address);
        if (a.result != kResultSuccess) return std::nullopt;
        host = ipv4_text(a.external_ipv4);
    }
    auto bytes = exchange(natpmp_map_request(internal_port_, external_port, lifetime), [&](std::string_view d) {
        auto a = parse_mapping_answer(d);
        return a && a->version == kNatPmpVersion && a->opcode == kNatPmpOpMapUdp &&
               (a->result != kResultSuccess || a->internal_port == internal_port_);
    }, tries);
    if (!bytes) return std::nullopt;
    MappingAnswer a = *parse_mapping_answer(*bytes);
    if (a.result != kResultSuccess) return std::nullopt;
    restarted = note_epoch(a.epoch);
    return PortMappingGrant{MappingProtocol::NatPmp, Endpoint{host, a.external_port}, a.lifetime};
}

bool PortMapper::discover_upnp() {
    if (upnp_) return true;
    const std::string interface_address = client_ipv4() ? ipv4_text(client_ipv4()) : std::string();
    int error = 0;
    UPNPDev* devices = upnpDiscover(kUpnpDiscoverMs, interface_address.empty() ? nullptr : interface_address.c_str(),
                                    nullptr, UPNP_LOCAL_PORT_ANY, 0, 2, &error);
    // Only the home router is asked: any host on the LAN may answer discovery, naming any URL,
    // our own loopback listeners included, which would then be called with the player's token.
    UPNPDev* strangers = nullptr;
    for (UPNPDev** link = &devices; *link;) {
        UPNPDev* device = *link;
        if (url_is_on_host(device->descURL, router_.host)) {
            link = &device->pNext;
            continue;
        }
        *link = device->pNext;
        device->pNext = strangers;
        strangers = device;
    }
    freeUPNPDevlist(strangers);
    if (!devices) return false;
    auto found = std::make_unique<Upnp>();
    // 1: a connected IGD; 2: an IGD that says it is not connected, which is still worth asking.
    const int kind = UPNP_GetValidIGD(devices, &found->urls, &found->data, found->lan_address,
                                      static_cast<int>(sizeof found->lan_address));
    freeUPNPDevlist(devices);
    if (kind != 1 && kind != 2) return false;
    if (!found->control() || !url_is_on_host(found->control(), router_.host)) return false;
    char external[40] = {};
    if (UPNP_GetExternalIPAddress(found->control(), found->service(), external) != UPNPCOMMAND_SUCCESS) return false;
    found->external_host = external;
    upnp_ = std::move(found);
    return true;
}

std::optional<PortMappingGrant> PortMapper::ask_upnp(std::uint32_t lifetime, int external_port, bool& restarted) {
    if (!discover_upnp()) return std::nullopt;
    const std::string in_port = std::to_string(internal_port_);
    std::string out_port = std::to_string(external_port);
    if (lifetime == 0) {
        UPNP_DeletePortMapping(upnp_->control(), upnp_->service(), out_port.c_str(), "UDP", nullptr);
        return std::nullopt;
    }
    // A mapping that the router still lists needs only its lease renewed; one that it no longer
    // lists was lost, by a restart or otherwise.
    char client[40] = {}, port[6] = {}, description[80] = {}, enabled[4] = {}, lease[16] = {};
    const bool listed = grant_ && UPNP_GetSpecificPortMappingEntry(upnp_->control(), upnp_->service(), out_port.c_str(),
                                                                    "UDP", nullptr, client, port, description, enabled,
                                                                    lease) == UPNPCOMMAND_SUCCESS &&
                        std::strcmp(client, upnp_->lan_address) == 0 && port == in_port;
    if (grant_ && !listed) restarted = true;
    std::string lease_text = std::to_string(lifetime);
    int r = UPNP_AddPortMapping(upnp_->control(), upnp_->service(), out_port.c_str(), in_port.c_str(),
                                upnp_->lan_address, kUpnpDescription, "UDP", nullptr, lease_text.c_str());
    if (r == kUpnpOnlyPermanentLeases || r == kUpnpInvalidArgs) {
        // Routers that allow no lease: a permanent mapping, deleted at stop.
        lease_text = "0";
        r = UPNP_AddPortMapping(upnp_->control(), upnp_->service(), out_port.c_str(), in_port.c_str(),
                                upnp_->lan_address, kUpnpDescription, "UDP", nullptr, lease_text.c_str());
    }
    if (r == kUpnpConflict) {
        // Someone else holds that port: let the router choose one (IGD version 2).
        char reserved[6] = {};
        r = UPNP_AddAnyPortMapping(upnp_->control(), upnp_->service(), out_port.c_str(), in_port.c_str(),
                                   upnp_->lan_address, kUpnpDescription, "UDP", nullptr, lease_text.c_str(), reserved);
        if (r == UPNPCOMMAND_SUCCESS) out_port = reserved;
    }
    if (r != UPNPCOMMAND_SUCCESS) {
        // A router that stopped answering is looked for again next time.
        if (r < 0) upnp_.reset();
        return std::nullopt;
    }
    return PortMappingGrant{MappingProtocol::Upnp, Endpoint{upnp_->external_host, std::atoi(out_port.c_str())},
                            static_cast<std::uint32_t>(std::atol(lease_text.c_str()))};
}

std::optional<PortMappingGrant> PortMapper::ask(MappingProtocol protocol, std::uint32_t lifetime, int external_port,
                                                bool& restarted) {
    switch (protocol) {
    case MappingProtocol::Pcp: return ask_pcp(lifetime, external_port, restarted);
    case MappingProtocol::NatPmp: return ask_natpmp(lifetime, external_port, restarted);
    case MappingProtocol::Upnp: return ask_upnp(lifetime, external_port, restarted);
    }
    return std::nullopt;
}

std::optional<PortMappingGrant> PortMapper::map(std::uint32_t lifetime) {
    grant_.reset();
    epoch_.reset();
    for (MappingProtocol protocol : protocols) {
        if (stopping_) break;
        bool restarted = false;
        if (auto granted = ask(protocol, lifetime, internal_port_, restarted)) {
            grant_ = granted;
            break;
        }
    }
    return grant_;
}

PortMapper::Refresh PortMapper::refresh(std::uint32_t lifetime) {
    if (!grant_) return Refresh::Lost;
    bool restarted = false;
    auto granted = ask(grant_->protocol, lifetime, grant_->external.port, restarted);
    if (!granted) {
        grant_.reset();
        return Refresh::Lost;
    }
    grant_ = granted;
    return restarted ? Refresh::Restored : Refresh::Held;
}

void PortMapper::release() {
    if (!grant_) return;
    bool restarted = false;
    ask(grant_->protocol, 0, grant_->protocol == MappingProtocol::NatPmp ? 0 : grant_->external.port, restarted);
    grant_.reset();
}

}  // namespace zq::p2p
