#pragma once
// Home networks of the kinds players have, built in network namespaces of one Linux machine:
// each site is a home router (and perhaps a carrier's NAT in front of it) with one or two homes
// behind it, joined to a public side where the stand-in service and its STUN and relay server
// live. Each home runs a bridge as a process and a simulated player inside this test process,
// on sockets made in the home's namespace. Each site's line to the public side carries a delay.
//
//   home h<s>0 10.0.s.2 --.
//   home h<s>1 10.0.s.3 --+-- lan 10.0.s.1, router r<s>, wan W --(delay)-- inet, stand-in on 203.0.113.10
//                                   (or wan 100.64.s.2 -- carrier c<s>, wan W)
//
// W is 198.51.100.2 or .130, documentation addresses; a router that offers port mapping gets
// 11.0.s.2, since its mapping daemon will not serve behind an address it takes for reserved.
// Nothing leaves the namespaces.

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "player/sim_player.h"
#include "support/delay_wire.h"
#include "support/netns.h"
#include "support/process.h"

namespace testing_support {

enum class RouterKind {
    FullCone,           // one public port per home socket, open to anyone
    AddressRestricted,  // the same, open to hosts the home has sent to
    PortRestricted,     // masquerade keeping ports, open to answers only
    Symmetric,          // a fresh random port for every destination
    PortMapping,        // symmetric, with a daemon that maps ports on request (UPnP IGD, NAT-PMP, PCP)
};

const char* router_kind_name(RouterKind kind);

struct SiteSpec {
    RouterKind kind = RouterKind::PortRestricted;
    std::optional<RouterKind> carrier;  // a carrier's NAT of this kind in front of the home router
    int homes = 1;                      // two: both players behind this one router
    bool hairpin = false;               // the router turns LAN traffic to its public address back in
};

struct LabSpec {
    std::vector<SiteSpec> sites;
    int delay_ms = 20;  // each way, on every site's line to the public side
    // The stand-in's word on who meets through the relay: "--choose-ways",
    // "--relay-members" or "" (never).
    std::string relay = "--choose-ways";
};

class NatLab {
public:
    explicit NatLab(LabSpec spec);
    // Stops the players, the bridges, the daemons and the stand-in, each of which must end
    // cleanly, then takes the namespaces down.
    ~NatLab();
    NatLab(const NatLab&) = delete;
    NatLab& operator=(const NatLab&) = delete;

    // Namespaces, lines, router rules, mapping daemons and the stand-in; false with error().
    bool build();
    const std::string& error() const { return error_; }

    int homes() const { return static_cast<int>(homes_.size()); }
    // The public address that the home's site shows the internet.
    std::string public_address(int home) const;
    std::string home_address(int home) const;

    // Starts home's bridge with these config keys over the lab's own, and waits until the STUN
    // server has answered it (and granted a relay port).
    bool start_bridge(int home, const nlohmann::json& extra = nlohmann::json::object());
    Process& bridge(int home) { return *bridges_.at(static_cast<std::size_t>(home)); }
    // A player in the home, connected to its bridge, logged in, pinged and in a context.
    sim::Player* start_player(int home, const std::string& name);
    sim::Player& player(int home) { return *players_.at(static_cast<std::size_t>(home)); }

    // The bridge's status page as JSON, or null when it did not answer.
    nlohmann::json status(int home);
    // The route that home's status page shows for the named peer; "" when it lists none.
    std::string route(int home, const std::string& peer);

    // Router controls, for the site of a home (its home router, and its carrier too where
    // the point is the mapping the internet sees).
    bool set_udp_timeout(int home, int seconds);
    bool flush_conntrack(int home);
    // The outer NAT forgets every mapping and gives the next flows ports from a new range.
    bool rebind(int home);
    // Drops this share of the game's datagrams on every home router, both ways; counted.
    bool set_loss(int percent);
    // Game datagrams that set_loss dropped so far, over all routers.
    long lab_drops();

    Process& standin() { return *standin_; }
    // Stops the stand-in and returns the relay frames it forwarded, or -1.
    int stop_standin();
    NetworkLab& network() { return lab_; }
    // The lab's name of a home's namespace, and of the public side's ("inet").
    std::string home_ns(int home) const;
    const std::filesystem::path& folder() const { return dir_.path(); }

    // One-way delay from a to b in milliseconds: the median of `samples` single datagrams, each
    // waited for; those the lab drops are sent again. Negative when none arrived.
    double one_way_ms(int from, int to, const std::string& to_name, int samples);

private:
    struct Home {
        int site = 0;
        int slot = 0;
    };

    std::string router_of(int site) const;  // the home router's namespace
    std::string outer_of(int site) const;   // the namespace that owns the public address
    bool build_site(int site);
    std::string ruleset(int site, RouterKind kind, const std::string& wan_address, bool hairpin) const;
    bool start_mapping_daemon(int site);
    bool run(const std::string& ns, const std::string& program, const std::vector<std::string>& args);
    bool fail(const std::string& text);

    LabSpec spec_;
    TempDir dir_;
    NetworkLab lab_;  // declared before everything that lives in its namespaces
    std::vector<std::unique_ptr<DelayWire>> wires_;
    std::vector<Home> homes_;
    std::unique_ptr<Process> standin_;
    std::vector<std::unique_ptr<Process>> daemons_;
    std::vector<std::unique_ptr<Process>> bridges_;
    std::vector<std::unique_ptr<sim::Player>> players_;
    std::string error_;
};

}  // namespace testing_support
