// Players behind the home networks of support/nat_lab.h: which way each pair of router kinds
// meets (LAN, direct, through a port mapping, or through the relay), read from each bridge's
// status page; that every game datagram arrives but those the lab itself drops; what each way
// costs in delay; and joining and leaving. Then the harder days: a long pause under a router
// that forgets idle mappings, a NAT that rebinds mid-stream, and a stranger at the peer's host.
//
// Each matrix row prints one "nat-matrix:" line; scripts/nat-matrix.sh makes the table of them.

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "shell/net.h"
#include "shell/platform.h"
#include "shell/util.h"
#include "support/host.h"
#include "support/nat_lab.h"
#include "support/prelude.h"
#include "support/process.h"

namespace {

using Kind = RouterKind;

const char* const kNames[2] = {"ashling", "bramwell"};

std::string network_lab_skip() {
    if (running_under_wine()) return "the NAT lab needs Linux network namespaces; this is the Windows build under Wine";
    return network_lab_unavailable();
}

std::uint32_t arrived(sim::Player& p, const char* from) {
    sim::Received r = p.received_from(from);
    return r.in_order + r.out_of_order;
}

// Both players in a built lab, ashling's room made and bramwell in it, each gateway having met
// the other.
void meet(NatLab& lab, const nlohmann::json& config_a = nlohmann::json::object(),
          const nlohmann::json& config_b = nlohmann::json::object()) {
    ASSERT_TRUE(lab.start_bridge(0, config_a)) << lab.error();
    ASSERT_TRUE(lab.start_bridge(1, config_b)) << lab.error();
    sim::Player* a = lab.start_player(0, kNames[0]);
    ASSERT_TRUE(a) << lab.error();
    sim::Player* b = lab.start_player(1, kNames[1]);
    ASSERT_TRUE(b) << lab.error();
    std::string error;
    auto room = a->create_room(4, &error);
    ASSERT_TRUE(room) << error;
    ASSERT_TRUE(b->join_room(*room, &error)) << error;
    auto joined = a->next_event(15.0);
    ASSERT_TRUE(joined && joined->code == sim::kMemberJoined && joined->member) << lab.bridge(0).output();
    // The first datagrams may go while the NATs are still being punched through; from the first
    // that arrives each way on, the way is open.
    auto peer_of = [](sim::Player& p) { return p.peers().begin()->second; };
    double next_try = 0;
    ASSERT_TRUE(wait_until(
        [&] {
            if (zq::steady_seconds() >= next_try) {
                next_try = zq::steady_seconds() + 0.1;
                if (arrived(*b, kNames[0]) == 0) a->send_numbered(peer_of(*a), 1);
                if (arrived(*a, kNames[1]) == 0) b->send_numbered(peer_of(*b), 1);
            }
            return arrived(*a, kNames[1]) > 0 && arrived(*b, kNames[0]) > 0;
        },
        15.0))
        << lab.status(0).dump(2) << lab.status(1).dump(2) << lab.bridge(0).output() << lab.bridge(1).output();
}

struct Stream {
    std::uint32_t sent = 0;
    std::uint32_t received = 0;
    long dropped = 0;
};

// Numbered datagrams both ways in paced batches; every one either arrives or was dropped by
// the lab, and none arrives altered or from a stranger.
Stream stream(NatLab& lab, std::uint32_t each_way) {
    sim::Player* p[2] = {&lab.player(0), &lab.player(1)};
    auto total_received = [&] {
        std::uint32_t n = 0;
        for (int i = 0; i < 2; ++i) {
            sim::Received r = p[i]->received_from(kNames[1 - i]);
            n += r.in_order + r.out_of_order;
        }
        return n;
    };
    auto now = [&] {
        return Stream{p[0]->sent_to(kNames[1]) + p[1]->sent_to(kNames[0]), total_received(), lab.lab_drops()};
    };
    Stream before = now(), after;
    for (std::uint32_t sent = 0; sent < each_way; sent += 10) {
        for (int i = 0; i < 2; ++i) p[i]->send_numbered(p[i]->peers().begin()->second, 10);
        zq::sleep_ms(20);
    }
    wait_until([&] {
        after = now();
        return after.received - before.received + (after.dropped - before.dropped) >= after.sent - before.sent;
    });
    for (int i = 0; i < 2; ++i) {
        sim::Received r = p[i]->received_from(kNames[1 - i]);
        EXPECT_EQ(r.damaged, 0u) << kNames[i];
        EXPECT_EQ(r.unmet, 0u) << kNames[i];
    }
    return {after.sent - before.sent, after.received - before.received, after.dropped - before.dropped};
}

// bramwell leaves: ashling's game hears it, and her bridge lets go of his link.
void leave(NatLab& lab) {
    std::string error;
    ASSERT_TRUE(lab.player(1).leave_room(&error)) << error;
    auto left = lab.player(0).next_event(15.0);
    ASSERT_TRUE(left && left->code == sim::kMemberLeft);
    EXPECT_TRUE(wait_until([&] { return lab.route(0, kNames[1]).empty(); })) << lab.status(0).dump();
}

struct Row {
    const char* name;
    std::vector<SiteSpec> sites;
    std::vector<std::string> routes;  // what either side's status page may show
    nlohmann::json config_a = nlohmann::json::object();
    std::string relay = "--choose-ways";
    std::string route_a;  // what ashling's page must show, where it differs from bramwell's
    const char* note = "";  // for the table, after ashling's home
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

std::string site_text(const SiteSpec& s) {
    std::string text = router_kind_name(s.kind);
    if (s.carrier) text += std::string(" behind a ") + router_kind_name(*s.carrier) + " carrier NAT";
    if (s.homes == 2)
        text = "both behind one " + text + (s.hairpin ? " router, hairpinning" : " router, not hairpinning");
    return text;
}

class NatMatrix : public ::testing::TestWithParam<Row> {
protected:
    void SetUp() override {
        std::string why = network_lab_skip();
        if (!why.empty()) GTEST_SKIP() << why;
    }
};

// Each pair meets the way its routers allow, loses nothing the lab did not drop, costs the
// delay the table shows, and sees a member leave.
TEST_P(NatMatrix, MeetsAsItsRoutersAllow) {
    const Row& row = GetParam();
    NatLab lab({row.sites, 20, row.relay});
    ASSERT_TRUE(lab.build()) << lab.error();
    ASSERT_NO_FATAL_FAILURE(meet(lab, row.config_a));
    std::string routes[2] = {lab.route(0, kNames[1]), lab.route(1, kNames[0])};
    for (int i = 0; i < 2; ++i)
        EXPECT_NE(std::find(row.routes.begin(), row.routes.end(), routes[i]), row.routes.end())
            << kNames[i] << " sees " << routes[i] << "\n"
            << lab.status(i).dump(2) << lab.bridge(i).output();
    if (!row.route_a.empty()) EXPECT_EQ(routes[0], row.route_a) << lab.bridge(0).output();
    double delay[2] = {lab.one_way_ms(0, 1, kNames[1], 9), lab.one_way_ms(1, 0, kNames[0], 9)};
    ASSERT_TRUE(lab.set_loss(5)) << lab.error();
    Stream s = stream(lab, 200);
    EXPECT_EQ(s.received + static_cast<std::uint32_t>(s.dropped), s.sent) << "lost beyond the lab's drops";
    ASSERT_NO_FATAL_FAILURE(leave(lab));
    int relayed = lab.stop_standin();
    bool via_relay = routes[0] == "relay";
    EXPECT_EQ(relayed > 0, via_relay) << "the relay forwarded " << relayed << " frames";
    // Each site's line adds 20 ms each way; what a way adds beyond them is its own cost.
    double line_ms = row.sites.size() == 2 ? 40.0 : 0.0;
    std::printf("nat-matrix: %s | %s | %s / %s | %.1f / %.1f | %.1f | %u of %u, %ld dropped by the lab\n",
                (site_text(row.sites[0]) + row.note).c_str(),
                row.sites.size() == 2 ? site_text(row.sites[1]).c_str() : "(the same)",
                routes[0].c_str(), routes[1].c_str(), delay[0], delay[1], (delay[0] + delay[1]) / 2 - line_ms,
                s.received, s.sent, s.dropped);
}

const SiteSpec kFullCone{Kind::FullCone};
const SiteSpec kAddressRestricted{Kind::AddressRestricted};
const SiteSpec kPortRestricted{Kind::PortRestricted};
const SiteSpec kSymmetric{Kind::Symmetric};
const SiteSpec kMapping{Kind::PortMapping};

INSTANTIATE_TEST_SUITE_P(
    Nat, NatMatrix,
    ::testing::Values(
        Row{"FullCones", {kFullCone, kFullCone}, {"direct"}},
        Row{"AddressRestrictedCones", {kAddressRestricted, kAddressRestricted}, {"direct"}},
        Row{"PortRestrictedCones", {kPortRestricted, kPortRestricted}, {"direct"}},
        Row{"FullConeAndPortRestricted", {kFullCone, kPortRestricted}, {"direct"}},
        Row{"AddressRestrictedAndPortRestricted", {kAddressRestricted, kPortRestricted}, {"direct"}},
        Row{"SymmetricNats", {kSymmetric, kSymmetric}, {"relay"}},
        Row{"SymmetricAndPortRestricted", {kSymmetric, kPortRestricted}, {"relay"}},
        // Without the relay on offer, a full cone still meets a symmetric NAT: its gateway
        // learns the peer's port from the punch that comes in.
        Row{"SymmetricLearnedByFullCone", {kSymmetric, kFullCone}, {"direct"}, {}, "", "", ", no relay offered"},
        Row{"CarrierNatOfPortRestrictedKind",
            {SiteSpec{Kind::PortRestricted, Kind::PortRestricted}, kPortRestricted},
            {"direct"}},
        Row{"CarrierNatOfSymmetricKind", {SiteSpec{Kind::PortRestricted, Kind::Symmetric}, kPortRestricted}, {"relay"}},
        // Told each other's LAN addresses, two players behind one router meet there; told only
        // the public one, they meet if the router turns it back in (the page says LAN when a
        // punch to the LAN address came last).
        Row{"OneRouterWithoutHairpinning", {SiteSpec{Kind::PortRestricted, {}, 2, false}}, {"LAN"}},
        Row{"OneRouterWithHairpinning", {SiteSpec{Kind::PortRestricted, {}, 2, true}}, {"direct", "LAN"}, {}, "", "",
            ", told only public addresses"},
        // A mapping on the symmetric router lets either kind of peer in; without it, the relay.
        Row{"PortMappingAndPortRestricted", {kMapping, kPortRestricted}, {"direct (port mapping)", "direct"}, {},
            "--choose-ways", "direct (port mapping)"},
        Row{"PortMappingAndSymmetric", {kMapping, kSymmetric}, {"direct (port mapping)", "direct"}, {}, "",
            "direct (port mapping)", ", no relay offered"},
        Row{"PortMappingTurnedOff", {kMapping, kPortRestricted}, {"relay"}, {{"port_mapping", 0}}, "--choose-ways", "",
            ", port_mapping 0"},
        // A gateway of an older build, with neither keepalive nor port mapping, still meets this one.
        Row{"OldStylePeer", {kPortRestricted, kPortRestricted}, {"direct"}, {{"port_mapping", 0}, {"p2p_keepalive", 0}},
            "--choose-ways", "", ", an older build (no keepalive, no port mapping)"}),
    [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

// sarnlink-check in a home behind a router of this kind, first against the stand-in, then
// against coturn, which also offers a second address; the launcher is routed, so the router
// alone decides. A router that keeps one mapping for every destination means direct play; one
// that maps each destination anew means the relay. coturn's second address shows it outright;
// the stand-in's one address leaves only the port as a hint.
class NatCheck : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why = network_lab_skip();
        if (!why.empty()) GTEST_SKIP() << why;
    }

    std::string check(NatLab& lab, bool with_coturn) {
        std::filesystem::path home = lab.folder() / "check";
        write_file(home / "game" / "Duskhallow.exe", "");
        write_file(home / "roaming" / "orlond-launcher" / "settings.json",
                   R"({"online": 1, "online_server": "127.0.0.1:31313",
                       "online_webapi": "http://127.0.0.1:31315", "online_password": "sarnlink"})");
        write_file(home / "sarnlink_config.json",
                   zq::format_text(R"({"velmar_server": "http://203.0.113.10:18671", "stun_server": "203.0.113.10:%d",
                                       "game_proxy_routes": {}})",
                                   with_coturn ? 3479 : 3478));
        auto result = run_process(system_program("ip"),
                                  lab.network().exec_args(lab.home_ns(0), SARNLINK_CHECK_PATH,
                                                          {"--config", "sarnlink_config.json", "--orlond",
                                                           (home / "game").string()}),
                                  home, {{"APPDATA", (home / "roaming").string()}}, 60.0);
        EXPECT_EQ(result.exit_code, 0) << result.output;
        return result.output;
    }

    void verdict(Kind kind, const std::vector<std::string>& standin_lines, const std::string& coturn_line,
                 const std::string& verdict) {
        NatLab lab({{SiteSpec{kind}}, 0, ""});
        ASSERT_TRUE(lab.build()) << lab.error();
        std::string out = check(lab, false);
        for (const std::string& line : standin_lines) EXPECT_NE(out.find(line), std::string::npos) << out;
        EXPECT_NE(out.find(verdict), std::string::npos) << out;
        std::filesystem::path turnserver = find_program("turnserver");
        if (turnserver.empty()) GTEST_SKIP() << "coturn (turnserver) is not installed";
        // Two addresses and two ports, as RFC 5780 asks.
        ASSERT_TRUE(lab.network().ip("inet", {"addr", "add", "203.0.113.11/32", "dev", "lo"})) << lab.network().error();
        Process coturn(system_program("ip"),
                       lab.network().exec_args(
                           "inet", turnserver,
                           {"-S", "-n", "--no-cli", "-L", "203.0.113.10", "-L", "203.0.113.11", "--listening-port",
                            "3479", "--alt-listening-port", "3480", "--log-file", "stdout", "--simple-log",
                            "--pidfile", (lab.folder() / "turn.pid").string(), "--userdb",
                            (lab.folder() / "turndb").string()}),
                       lab.folder());
        out = check(lab, true);
        EXPECT_NE(out.find(coturn_line), std::string::npos) << out << coturn.output();
        EXPECT_NE(out.find(verdict), std::string::npos) << out;
        coturn.interrupt();
        coturn.wait(10.0);  // coturn ends an interrupt with 130: not ours to judge
    }
};

// A player's check before playing: a router that keeps one mapping for every destination means
// direct play; one that maps each destination anew means the relay. coturn's second port shows
// it outright (the check asks no other host than the server's own); the stand-in's one address
// leaves only the port as a hint.
TEST_F(NatCheck, FindsDirectPlayLikelyBehindAPortRestrictedCone) {
    verdict(Kind::PortRestricted, {"sees us as 198.51.100.2:", "ok    router: kept our port"},
            "ok    router: keeps one public address for every destination (203.0.113.10:3480 saw 198.51.100.2:",
            "verdict: ready, direct play likely\n");
}

TEST_F(NatCheck, FindsTheRelayLikelyNeededBehindASymmetricNat) {
    verdict(Kind::Symmetric, {"note  router: changed our port "},
            "note  router: gives every destination its own public address", "verdict: ready, relay likely needed\n");
}

class NatDays : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why = network_lab_skip();
        if (!why.empty()) GTEST_SKIP() << why;
    }
};

// After a 90-second pause in which the game sends nothing, ashling's game sends again; its
// first datagram goes again every 100 ms until one is through. Returns how many of the 50 that
// follow it were lost, or -1 when none got through within 3 s.
int resume_after_pause(NatLab& lab, bool keepalive) {
    const nlohmann::json config = keepalive ? nlohmann::json::object() : nlohmann::json{{"p2p_keepalive", 0}};
    meet(lab, config, config);
    if (::testing::Test::HasFatalFailure()) return -2;
    zq::sleep_ms(90 * 1000);
    sim::Player& a = lab.player(0);
    sim::Player& b = lab.player(1);
    const sim::Member peer = a.peers().begin()->second;
    const std::uint32_t before = arrived(b, kNames[0]);
    double next_try = 0;
    bool through = wait_until(
        [&] {
            if (zq::steady_seconds() >= next_try) {
                next_try = zq::steady_seconds() + 0.1;
                a.send_numbered(peer, 1);
            }
            return arrived(b, kNames[0]) > before;
        },
        3.0);
    if (!through) return -1;
    // Let any copy of the first that is still on its way land before counting.
    zq::sleep_ms(200);
    const std::uint32_t first = arrived(b, kNames[0]);
    a.send_numbered(peer, 50);
    wait_until([&] { return arrived(b, kNames[0]) >= first + 50; });
    return static_cast<int>(first + 50 - arrived(b, kNames[0]));
}

// Routers that forget an idle mapping after 30 s, and a 90-second pause (a menu, a loading
// screen). The gateways' keepalive holds the way open; gateways without it lose the way. Both
// run side by side.
TEST_F(NatDays, KeepaliveHoldsTheWayThroughAPause) {
    NatLab held({{kPortRestricted, kPortRestricted}});
    NatLab dropped({{kPortRestricted, kPortRestricted}});
    for (NatLab* lab : {&held, &dropped}) {
        ASSERT_TRUE(lab->build()) << lab->error();
        ASSERT_TRUE(lab->set_udp_timeout(0, 30) && lab->set_udp_timeout(1, 30)) << lab->error();
    }
    int lost_without = -2;
    std::thread control([&] { lost_without = resume_after_pause(dropped, false); });
    int lost_with = resume_after_pause(held, true);
    control.join();
    EXPECT_EQ(lost_with, 0) << held.bridge(0).output() << held.bridge(1).output();
    EXPECT_EQ(lost_without, -1) << "without keepalive the stream still got through";
}

// bramwell's router forgets its mappings mid-stream and gives his next datagrams a port from
// another range: ashling's gateway follows him there within 3 s, and his own tells the service. Before that, a stranger
// behind the same router sends punches and frames in bramwell's name from another port while
// bramwell is active: none of it reaches ashling's game, and nothing is sent back to him.
TEST_F(NatDays, FollowsARebindingPeerButNoStrangerAtItsHost) {
    NatLab lab({{kAddressRestricted, kPortRestricted}});
    ASSERT_TRUE(lab.build()) << lab.error();
    ASSERT_NO_FATAL_FAILURE(meet(lab));
    sim::Player& a = lab.player(0);
    sim::Player& b = lab.player(1);
    struct Stream {
        std::atomic<bool> on{true};
        std::thread thread;
        ~Stream() {
            on = false;
            thread.join();
        }
    } stream;
    stream.thread = std::thread([&] {
        while (stream.on) {
            a.send_numbered(a.peers().begin()->second, 2);
            b.send_numbered(b.peers().begin()->second, 2);
            zq::sleep_ms(20);
        }
    });
    const std::string known = lab.status(0)["peers"][0].value("address", "");

    zq::Socket stranger = zq::invalid_socket;
    lab.network().run_inside(lab.home_ns(1), [&] {
        stranger = zq::open_udp_socket();
        zq::bind_socket(stranger, zq::to_sockaddr(zq::Endpoint{"0.0.0.0", 40001}));
    });
    ASSERT_NE(stranger, zq::invalid_socket);
    const zq::SockAddr target = zq::to_sockaddr(zq::Endpoint{lab.public_address(0), 40000});
    std::string frame = bytes({0xFF, 0xC3, 7, 9}) + sim::Player::numbered_payload(kNames[1], 1000000, 7, 9);
    const std::string punch = bytes({0xFE, 'z', 'q', 'h', 'p', 0, 0, 0});
    int answers = 0;
    for (int i = 0; i < 60; ++i) {
        zq::send_to(stranger, punch.data(), static_cast<int>(punch.size()), target);
        zq::send_to(stranger, frame.data(), static_cast<int>(frame.size()), target);
        std::vector<bool> ready;
        while (zq::wait_readable({stranger}, 50, ready) > 0) {
            char buffer[2048];
            zq::SockAddr from;
            if (zq::recv_from(stranger, buffer, sizeof buffer, &from) >= 0) ++answers;
        }
    }
    zq::close_socket(stranger);
    EXPECT_EQ(answers, 0);
    EXPECT_LT(a.received_from(kNames[1]).highest, 1000000u) << "the stranger's frame reached the game";
    EXPECT_EQ(lab.status(0)["peers"][0].value("address", ""), known);

    auto updates = [&] {
        std::string out = lab.standin().output();
        int n = 0;
        const std::string call = "POST /mp/matching2/signaling_update";
        for (std::size_t at = 0; (at = out.find(call, at)) != std::string::npos; ++at) ++n;
        return n;
    };
    const int updates_before = updates();
    ASSERT_TRUE(lab.rebind(1)) << lab.error();
    const double rebound = zq::steady_seconds();
    const std::uint32_t a_had = arrived(a, kNames[1]), b_had = arrived(b, kNames[0]);
    bool resumed =
        wait_until([&] { return arrived(a, kNames[1]) > a_had + 10 && arrived(b, kNames[0]) > b_had + 10; }, 10.0);
    const double took = zq::steady_seconds() - rebound;
    EXPECT_TRUE(resumed) << lab.bridge(0).output();
    EXPECT_LE(took, 3.0) << lab.bridge(0).output();
    std::printf("nat-rebinding: delivery resumed %.1f s after the rebinding\n", took);
    std::string now = lab.status(0)["peers"][0].value("address", "");
    EXPECT_TRUE(now.starts_with(lab.public_address(1) + ":50")) << now;
    // The other direction: bramwell's gateway sees its own new address and tells the service.
    EXPECT_TRUE(lab.bridge(1).wait_for_output("p2p: STUN sees us as " + lab.public_address(1) + ":50", 5.0))
        << lab.bridge(1).output();
    EXPECT_TRUE(wait_until([&] { return updates() > updates_before; }, 5.0)) << lab.standin().output();
}

}  // namespace
