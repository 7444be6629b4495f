#pragma once
// Asks the home router to forward one UDP port to this PC: PCP first, then NAT-PMP, then UPnP
// IGD (through miniupnpc), keeps the mapping that one of them grants, renews it, checks that the
// router still holds it, and releases it. Every call waits on the network, seconds at worst, so
// it belongs on a thread of its own; each ends early once `stopping` is set. Used from one
// thread at a time.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shell/util.h"

namespace zq::p2p {

enum class MappingProtocol { Pcp, NatPmp, Upnp };
const char* protocol_name(MappingProtocol protocol);

struct PortMappingGrant {
    MappingProtocol protocol = MappingProtocol::Pcp;
    Endpoint external;           // the router's public address and the port it forwards
    std::uint32_t lifetime = 0;  // seconds granted; 0: until deleted (UPnP routers that allow no lease)
};

// Why a mapping to `external` is worth nothing to peers on the internet, or "" when it is worth
// reporting: its address must be public and the one that STUN sees (`stun_seen`, absent before
// STUN's first answer). Its port may differ from STUN's.
std::string mapping_unused_because(const Endpoint& external, const std::optional<Endpoint>& stun_seen);

// The default gateway to ask, at the PCP/NAT-PMP port, or nothing with the reason in `why`: no
// default route, or a default gateway with a public address, which is no home NAT.
std::optional<Endpoint> home_router(std::string& why);

class PortMapper {
public:
    // router: the default gateway's address and its PCP/NAT-PMP port (5351); internal_port: our
    // UDP port on this PC.
    PortMapper(Endpoint router, int internal_port, const std::atomic<bool>& stopping);
    ~PortMapper();
    PortMapper(const PortMapper&) = delete;
    PortMapper& operator=(const PortMapper&) = delete;

    // The protocols to try, in order; the default is all three.
    std::vector<MappingProtocol> protocols{MappingProtocol::Pcp, MappingProtocol::NatPmp, MappingProtocol::Upnp};

    // Asks for the mapping, external port equal to the internal one where the router allows;
    // the first protocol that grants it is kept for what follows. Nothing when none does.
    std::optional<PortMappingGrant> map(std::uint32_t lifetime);

    // Asks again with the protocol that granted, for the same external port: this renews the
    // lease and re-creates a mapping that the router lost. Restored: it had lost it (PCP and
    // NAT-PMP tell by their epoch going back, UPnP by no longer listing it). Lost: the router
    // refused or did not answer; the grant is gone and map() starts afresh.
    enum class Refresh { Held, Restored, Lost };
    Refresh refresh(std::uint32_t lifetime);

    // Deletes the mapping at the router, if there is one; one short try, since it runs at stop.
    void release();

    const std::optional<PortMappingGrant>& grant() const { return grant_; }

private:
    struct Upnp;

    std::optional<PortMappingGrant> ask(MappingProtocol protocol, std::uint32_t lifetime, int external_port,
                                        bool& restarted);
    std::optional<PortMappingGrant> ask_pcp(std::uint32_t lifetime, int external_port, bool& restarted);
    std::optional<PortMappingGrant> ask_natpmp(std::uint32_t lifetime, int external_port, bool& restarted);
    std::optional<PortMappingGrant> ask_upnp(std::uint32_t lifetime, int external_port, bool& restarted);
    bool discover_upnp();
    // One request to the router's port 5351, sent again after 250 ms, 500 ms and 1 s (up to
    // `tries` times) without an answer that `accept` takes; the answer's bytes, or nothing.
    template <typename Accept>
    std::optional<std::string> exchange(const std::string& request, Accept accept, int tries);
    // Our address towards the router, or 0.
    std::uint32_t client_ipv4();
    // Notes an answer's epoch; true when it says the router restarted since the last one.
    bool note_epoch(std::uint32_t epoch);

    const Endpoint router_;
    const int internal_port_;
    const std::atomic<bool>& stopping_;
    std::optional<PortMappingGrant> grant_;
    std::array<unsigned char, 12> nonce_{};  // PCP: one nonce for the life of the mapping
    std::uint32_t client_ipv4_ = 0;
    std::optional<std::uint32_t> epoch_;
    double epoch_time_ = 0.0;
    std::unique_ptr<Upnp> upnp_;
};

}  // namespace zq::p2p
