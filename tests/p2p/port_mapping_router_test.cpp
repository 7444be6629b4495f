// The gateway's port mapping against a real router daemon: Debian's miniupnpd (nftables), run
// in the router namespace of a small lab with one of its protocols at a time.
//
//   inet 80.81.82.1, STUN -- wan 80.81.82.2 router, miniupnpd, lan 10.0.1.1 -- home 10.0.1.2
//
// miniupnpd refuses to map on a WAN address that it takes for reserved, so the router's WAN has
// a public-looking one; nothing leaves the namespaces. The gateway runs in this process, made,
// started and stopped on a thread inside the home namespace.

#include <memory>

#include "p2p/gateway.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/netns.h"
#include "support/prelude.h"
#include "support/process.h"
#include "support/stun_relay_server.h"

using zq::Endpoint;
using zq::p2p::Gateway;
using zq::p2p::MappingProtocol;

namespace {

constexpr const char* kRuleset = R"(table inet filter {
  chain forward {
    type filter hook forward priority 0; policy accept;
    jump miniupnpd
  }
  chain miniupnpd {
  }
  chain prerouting {
    type nat hook prerouting priority -100; policy accept;
    jump prerouting_miniupnpd
  }
  chain postrouting {
    type nat hook postrouting priority 100; policy accept;
    jump postrouting_miniupnpd
    oifname "wan" masquerade fully-random
  }
  chain prerouting_miniupnpd {
  }
  chain postrouting_miniupnpd {
  }
}
)";

const std::filesystem::path kDaemon = "/usr/sbin/miniupnpd";

class RouterMapping : public ::testing::TestWithParam<MappingProtocol> {
protected:
    void SetUp() override {
        if (running_under_wine()) GTEST_SKIP() << "miniupnpd and network namespaces are Linux facilities";
        std::string why = network_lab_unavailable();
        if (!why.empty()) GTEST_SKIP() << why;
        ASSERT_TRUE(std::filesystem::exists(kDaemon)) << "install miniupnpd-nftables (scripts/install-deps.sh)";
        const std::string forward = "echo 1 > /proc/sys/net/ipv4/ip_forward";
        write_file(dir.path() / "router.nft", kRuleset);
        const bool upnp = GetParam() == MappingProtocol::Upnp;
        // Leases of a few seconds, so that renewals come quickly; one protocol at a time (PCP and
        // NAT-PMP share one switch, so the gateway is told which of the two to speak).
        write_file(dir.path() / "miniupnpd.conf",
                   zq::format_text("ext_ifname=wan\nlistening_ip=lan\nenable_natpmp=%s\n"
                                   "enable_upnp=%s\nsecure_mode=yes\nmin_lifetime=2\nmax_lifetime=%d\n"
                                   "uuid=3d3cec3a-8cf0-11e0-98ee-001a6bd2d07b\n"
                                   "allow 1024-65535 10.0.1.0/24 1024-65535\ndeny 0-65535 0.0.0.0/0 0-65535\n",
                                   upnp ? "no" : "yes", upnp ? "yes" : "no", kLifetime));
        bool ok = lab.add("inet") && lab.add("router") && lab.add("home") &&
                  lab.ip("inet", {"link", "add", "to-r", "type", "veth", "peer", "name", "wan", "netns",
                                  lab.full_name("router")}) &&
                  lab.ip("router", {"link", "add", "lan", "type", "veth", "peer", "name", "eth0", "netns",
                                    lab.full_name("home")}) &&
                  lab.ip("inet", {"addr", "add", "80.81.82.1/24", "dev", "to-r"}) &&
                  lab.ip("router", {"addr", "add", "80.81.82.2/24", "dev", "wan"}) &&
                  lab.ip("router", {"addr", "add", "10.0.1.1/24", "dev", "lan"}) &&
                  lab.ip("home", {"addr", "add", "10.0.1.2/24", "dev", "eth0"}) &&
                  lab.ip("inet", {"link", "set", "to-r", "up"}) && lab.ip("router", {"link", "set", "wan", "up"}) &&
                  lab.ip("router", {"link", "set", "lan", "up"}) && lab.ip("home", {"link", "set", "eth0", "up"}) &&
                  lab.ip("home", {"route", "add", "default", "via", "10.0.1.1"}) &&
                  lab.exec("router", "sh", {"-c", forward}) &&
                  lab.exec("router", "nft", {"-f", (dir.path() / "router.nft").string()});
        ASSERT_TRUE(ok) << lab.error();
        ASSERT_TRUE(lab.run_inside("inet", [&] { stun = std::make_unique<StunRelayServer>("80.81.82.1", 3478); }))
            << lab.error();
        stun->set_grant(false);
        start_daemon();
    }

    void TearDown() override {
        if (gateway) lab.run_inside("home", [&] { gateway.reset(); });
        stop_daemon();
        stun.reset();
    }

    void start_daemon() {
        daemon = std::make_unique<Process>(
            system_program("ip"),
            lab.exec_args("router", kDaemon,
                          {"-d", "-f", (dir.path() / "miniupnpd.conf").string(), "-P", (dir.path() / "pid").string()}),
            dir.path());
        const char* ready = GetParam() == MappingProtocol::Upnp ? "HTTP listening on port" : "Listening for NAT-PMP/PCP";
        ASSERT_TRUE(daemon->wait_for_output(ready, 20.0)) << daemon->output();
    }

    void stop_daemon() {
        if (!daemon) return;
        daemon->interrupt();
        EXPECT_EQ(daemon->wait(10.0), 0) << daemon->output();
        daemon.reset();
    }

    // The daemon's forwarding rule for the gateway's port, as nftables holds it.
    bool mapped_in_table() {
        auto r = run_process(system_program("ip"),
                             lab.exec_args("router", system_program("nft"),
                                           {"list", "chain", "inet", "filter", "prerouting_miniupnpd"}),
                             dir.path());
        return r.output.find(zq::format_text("dnat ip to 10.0.1.2:%d", port)) != std::string::npos;
    }

    static int count(const std::string& text, const std::string& part) {
        int n = 0;
        for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
        return n;
    }

    static constexpr int kLifetime = 4;
    LogCapture log;
    TempDir dir;
    NetworkLab lab;
    std::unique_ptr<StunRelayServer> stun;
    std::unique_ptr<Process> daemon;
    std::unique_ptr<Gateway> gateway;
    int port = 0;
};

}  // namespace

// The mapping appears in the daemon's table and becomes the address that the gateway reports;
// it is renewed before its short lease runs out; it comes back after the daemon restarted with
// an empty table; it is gone after the gateway stops.
TEST_P(RouterMapping, MapsRenewsMapsAgainAfterARestartAndReleases) {
    const MappingProtocol protocol = GetParam();
    ASSERT_TRUE(lab.run_inside("home", [&] {
        gateway = std::make_unique<Gateway>(0, Endpoint{"80.81.82.1", 3478}, "10.0.1.2", nullptr);
        gateway->stun_refresh = 0.5;
        gateway->port_mapping = true;
        gateway->mapping_protocols = {protocol};
        gateway->mapping_lifetime = kLifetime;
        gateway->mapping_check = 1.0;
        ASSERT_TRUE(gateway->start(nullptr));
        port = gateway->port;
    })) << lab.error();
    ASSERT_TRUE(gateway);

    ASSERT_TRUE(wait_until([&] {
        auto info = gateway->port_mapping_info();
        return info && info->used && gateway->own_endpoints().second == info->external;
    }, 30.0)) << daemon->output();
    EXPECT_EQ(gateway->port_mapping_info()->protocol, protocol);
    EXPECT_EQ(gateway->port_mapping_info()->external.host, "80.81.82.2");
    EXPECT_TRUE(mapped_in_table()) << daemon->output();

    // Renewed: the daemon hears the request again and again, and never lets the lease run out.
    const char* request = protocol == MappingProtocol::Pcp      ? "PCP MAP: "
                          : protocol == MappingProtocol::NatPmp ? "NAT-PMP port mapping request"
                                                                : "AddPortMapping";
    EXPECT_TRUE(wait_until([&] { return count(daemon->output(), request) >= 4; }, 30.0)) << daemon->output();
    EXPECT_TRUE(mapped_in_table());
    EXPECT_EQ(count(daemon->output(), "because it has expired"), 0) << daemon->output();

    // A restarted router has lost what it held.
    stop_daemon();
    for (const char* chain : {"prerouting_miniupnpd", "postrouting_miniupnpd", "miniupnpd"})
        ASSERT_TRUE(lab.exec("router", "nft", {"flush", "chain", "inet", "filter", chain})) << lab.error();
    ASSERT_FALSE(mapped_in_table());
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    EXPECT_TRUE(wait_until([&] { return mapped_in_table(); }, 30.0)) << daemon->output();

    ASSERT_TRUE(lab.run_inside("home", [&] { gateway->stop(); })) << lab.error();
    EXPECT_FALSE(mapped_in_table()) << daemon->output();
    EXPECT_TRUE(log.contains(zq::format_text("p2p: port mapping by %s released", zq::p2p::protocol_name(protocol))));
}

INSTANTIATE_TEST_SUITE_P(EachProtocolAlone, RouterMapping,
                         ::testing::Values(MappingProtocol::Pcp, MappingProtocol::NatPmp, MappingProtocol::Upnp),
                         [](const auto& info) {
                             return std::string(info.param == MappingProtocol::Pcp      ? "Pcp"
                                                : info.param == MappingProtocol::NatPmp ? "NatPmp"
                                                                                        : "Upnp");
                         });
