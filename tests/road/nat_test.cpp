// Two homes behind NAT routers and the stand-in on a public address, each in a Linux network
// namespace of its own, with the bridges, the stand-in and the simulated players running as
// processes inside them. Which way the datagrams went (straight through the punched NATs, or
// through the relay) is read from the bridges' logs and from the relay's count.
//
//   home a 10.0.1.2 -- router a, NAT: 198.51.100.2   --.
//                                                      internet, stand-in on 203.0.113.10
//   home b 10.0.2.2 -- router b, NAT: 198.51.100.130 --'
//
// Only documentation and private ranges are used, and nothing leaves the namespaces.

#include <memory>
#include <string>
#include <vector>

#include "shell/util.h"
#include "support/host.h"
#include "support/netns.h"
#include "support/prelude.h"
#include "support/process.h"

namespace {

// A full cone also lets anyone in at the gateway's mapped port, as a router with that port
// forwarded to the home does.
enum class NatKind { EndpointIndependent, AddressDependent, FullCone };

constexpr const char* kService = "203.0.113.10";
constexpr const char* kCoturn = "203.0.113.10";
constexpr const char* kCoturnOther = "203.0.113.11";

struct Home {
    const char* name;
    const char* router;
    const char* uplink;    // the internet's side of the router's outside link
    const char* outside;   // the router's outside address: what the NAT shows
    const char* inet_if;   // the internet's end of that link
    const char* inside;    // the router's inside address
    const char* address;   // the home's one address
};

const Home kHomes[2] = {
    {"ha", "ra", "198.51.100.1", "198.51.100.2", "to-a", "10.0.1.1", "10.0.1.2"},
    {"hb", "rb", "198.51.100.129", "198.51.100.130", "to-b", "10.0.2.1", "10.0.2.2"},
};

// Masquerading with ports kept where possible maps a home's socket to one outside port for every
// destination; fully random ports give every destination its own mapping, which no punch can
// guess. Either way the router lets in only answers to what went out. Unasked traffic is dropped
// before it leaves a connection-tracking entry behind: an early punch that reached the router
// itself would otherwise hold the outside port and push the home's own mapping to another one.
std::string ruleset(NatKind kind, const Home& home) {
    const std::string forward =
        kind == NatKind::FullCone
            ? zq::format_text("  chain prerouting {\n"
                              "    type nat hook prerouting priority dstnat; policy accept;\n"
                              "    iifname \"wan\" udp dport 40000 dnat to %s:40000\n"
                              "  }\n",
                              home.address)
            : std::string();
    return zq::format_text(
        "table ip nat {\n"
        "%s"
        "  chain postrouting {\n"
        "    type nat hook postrouting priority srcnat; policy accept;\n"
        "    oifname \"wan\" masquerade%s\n"
        "  }\n"
        "}\n"
        "table ip filter {\n"
        "  chain input {\n"
        "    type filter hook input priority filter; policy accept;\n"
        "    iifname \"wan\" ct state new drop\n"
        "  }\n"
        "}\n",
        forward.c_str(), kind == NatKind::AddressDependent ? " fully-random" : "");
}

class Nat : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why = network_lab_unavailable();
        if (!why.empty()) GTEST_SKIP() << why;
    }

    // Every program ends in order, so that one that fails on its way out (a sanitizer's report
    // among others) fails the test.
    void TearDown() override {
        auto all = {&players[0], &players[1], &bridges[0], &bridges[1], &standin};
        for (auto* p : all)
            if (*p) (*p)->interrupt();
        for (auto* p : all)
            if (*p) EXPECT_EQ((*p)->wait(10.0), 0) << (*p)->output();
    }

    void build(NatKind kind_a, NatKind kind_b) {
        const std::string forward = "echo 1 > /proc/sys/net/ipv4/ip_forward";
        bool ok = lab.add("inet") && lab.ip("inet", {"addr", "add", std::string(kService) + "/32", "dev", "lo"}) &&
                  lab.exec("inet", "sh", {"-c", forward});
        for (const Home& h : kHomes) {
            const std::filesystem::path rules = dir.path() / (std::string(h.name) + ".nft");
            write_file(rules, ruleset(&h == &kHomes[0] ? kind_a : kind_b, h));
            ok = ok && lab.add(h.router) && lab.add(h.name) &&
                 lab.ip("inet", {"link", "add", h.inet_if, "type", "veth", "peer", "name", "wan", "netns",
                                 lab.full_name(h.router)}) &&
                 lab.ip(h.router, {"link", "add", "lan", "type", "veth", "peer", "name", "eth0", "netns",
                                   lab.full_name(h.name)}) &&
                 lab.ip("inet", {"addr", "add", std::string(h.uplink) + "/25", "dev", h.inet_if}) &&
                 lab.ip(h.router, {"addr", "add", std::string(h.outside) + "/25", "dev", "wan"}) &&
                 lab.ip(h.router, {"addr", "add", std::string(h.inside) + "/24", "dev", "lan"}) &&
                 lab.ip(h.name, {"addr", "add", std::string(h.address) + "/24", "dev", "eth0"}) &&
                 lab.ip("inet", {"link", "set", h.inet_if, "up"}) && lab.ip(h.router, {"link", "set", "wan", "up"}) &&
                 lab.ip(h.router, {"link", "set", "lan", "up"}) && lab.ip(h.name, {"link", "set", "eth0", "up"}) &&
                 lab.ip(h.router, {"route", "add", "default", "via", h.uplink}) &&
                 lab.ip(h.name, {"route", "add", "default", "via", h.inside}) &&
                 lab.exec(h.router, "sh", {"-c", forward}) &&
                 lab.exec(h.router, "nft", {"-f", rules.string()});
        }
        ASSERT_TRUE(ok) << lab.error();
    }
    void build(NatKind kind) { build(kind, kind); }

    std::unique_ptr<Process> start_in(const std::string& ns, const std::filesystem::path& program,
                                      const std::vector<std::string>& args, const std::filesystem::path& where) {
        return std::make_unique<Process>(system_program("ip"), lab.exec_args(ns, program, args),
                                         where);
    }

    void start_standin(bool relay_members) {
        std::vector<std::string> args{"--http-host", kService, "--http-port", "18671", "--stun-host", kService,
                                      "--stun-port", "3478",   "--seconds",   "60"};
        if (relay_members) args.push_back("--relay-members");
        standin = start_in("inet", SARNLINK_STANDIN_PATH, args, dir.path());
        ASSERT_TRUE(standin->wait_for_output("The Ember Court stand-in on")) << standin->output();
    }

    // A bridge in each home, up once the STUN server has answered it; what that answer shows
    // must be the home's router, never the home.
    void start_bridges() {
        const std::string service = std::string("http://") + kService + ":18671";
        for (int i = 0; i < 2; ++i) {
            const Home& h = kHomes[i];
            std::filesystem::path home = dir.path() / h.name;
            write_file(
                home / "sarnlink_config.json",
                zq::format_text(R"({"velmar_server": "%s", "auth_server": "%s", "community_server": "%s",
                    "stun_server": "%s:3478", "local_addr": "%s", "p2p_port": 40000, "stun_refresh": 0.5,
                    "poll_interval": 0.05, "game_proxy_routes": {}, "create_accounts": 1,
                    "state_file": "sarnlink_state.json"})",
                                service.c_str(), service.c_str(), service.c_str(), kService, h.address));
            bridges[i] = start_in(h.name, cli_path(), {"--config", "sarnlink_config.json"}, home);
            ASSERT_TRUE(bridges[i]->wait_for_output("p2p: relay on, our port on it is")) << bridges[i]->output();
            ASSERT_TRUE(bridges[i]->wait_for_output(std::string("p2p: STUN sees us as ") + h.outside + ":"))
                << bridges[i]->output();
            EXPECT_EQ(bridges[i]->output().find(std::string("STUN sees us as ") + h.address), std::string::npos);
        }
    }

    // ashling creates a room at home a, bramwell joins from home b, and each sends numbered
    // datagrams until 50 of the other's have arrived; then both leave with a verdict.
    void play() {
        const char* names[2] = {"ashling", "bramwell"};
        auto start_player = [&](int i, std::vector<std::string> role) {
            std::vector<std::string> args{"--solo", names[i], "--bridge", "31313", "31314", "--frames", "50",
                                          "--seconds", "30"};
            args.insert(args.end(), role.begin(), role.end());
            players[i] = start_in(kHomes[i].name, SARNLINK_SIM_PLAYER_PATH, args, dir.path());
        };
        start_player(0, {"--create"});
        ASSERT_TRUE(players[0]->wait_for_output("ashling created room ")) << players[0]->output();
        std::string out = players[0]->output();
        std::size_t at = out.find("created room ") + 13;
        start_player(1, {"--join", out.substr(at, out.find('\n', at) - at)});
        for (int i = 0; i < 2; ++i)
            ASSERT_TRUE(players[i]->wait_for_output(" has 50 datagrams from ", 20.0)) << players[i]->output();
        for (auto& p : players) p->interrupt();
        for (auto& p : players) {
            EXPECT_EQ(p->wait(10.0), 0) << p->output();
            EXPECT_NE(p->output().find(" 0 damaged): PASS"), std::string::npos) << p->output();
        }
    }

    // Stops the stand-in and returns how many frames its relay forwarded, or -1.
    int relayed_frames() {
        standin->interrupt();
        EXPECT_EQ(standin->wait(10.0), 0);
        std::string out = standin->output();
        std::size_t at = out.find("relay forwarded ");
        return at == std::string::npos ? -1 : std::atoi(out.c_str() + at + 16);
    }

    bool logged(int bridge, const std::string& text) const {
        return bridges[bridge]->output().find(text) != std::string::npos;
    }

    // sarnlink-check in home a, against the stand-in's STUN server or against coturn, which
    // also offers a second address; the launcher is routed, so the router alone decides.
    std::string check_from_home_a(bool with_coturn) {
        std::filesystem::path home = dir.path() / "check";
        write_file(home / "game" / "Duskhallow.exe", "");
        write_file(home / "roaming" / "orlond-launcher" / "settings.json",
                                    R"({"online": 1, "online_server": "127.0.0.1:31313",
                                        "online_webapi": "http://127.0.0.1:31315", "online_password": "sarnlink"})");
        write_file(
            home / "sarnlink_config.json",
            zq::format_text(R"({"velmar_server": "http://%s:18671", "stun_server": "%s:%d",
                "game_proxy_routes": {}})",
                            kService, with_coturn ? kCoturn : kService, with_coturn ? 3479 : 3478));
        auto result = run_process(
            system_program("ip"),
            lab.exec_args(kHomes[0].name, SARNLINK_CHECK_PATH,
                          {"--config", "sarnlink_config.json", "--orlond", (home / "game").string()}),
            home, {{"APPDATA", (home / "roaming").string()}}, 60.0);
        EXPECT_EQ(result.exit_code, 0) << result.output;
        return result.output;
    }

    // coturn on the public side with two addresses and two ports, as RFC 5780 asks.
    std::unique_ptr<Process> start_coturn() {
        std::filesystem::path coturn = find_program("turnserver");
        if (coturn.empty()) return nullptr;
        EXPECT_TRUE(lab.ip("inet", {"addr", "add", std::string(kCoturnOther) + "/32", "dev", "lo"})) << lab.error();
        return start_in("inet", coturn,
                        {"-S", "-n", "--no-cli", "-L", kCoturn, "-L", kCoturnOther, "--listening-port", "3479",
                         "--alt-listening-port", "3480", "--log-file", "stdout", "--simple-log", "--pidfile",
                         (dir.path() / "turn.pid").string(), "--userdb", (dir.path() / "turndb").string()},
                        dir.path());
    }

    // sarnlink-check in home a behind a router of this kind, first against the stand-in, then
    // against coturn.
    void check_verdict(NatKind kind, const std::vector<std::string>& standin_lines, const std::string& coturn_line,
                       const std::string& verdict) {
        build(kind);
        ASSERT_NO_FATAL_FAILURE(start_standin(false));
        std::string out = check_from_home_a(false);
        for (const std::string& line : standin_lines) EXPECT_NE(out.find(line), std::string::npos) << out;
        EXPECT_NE(out.find(verdict), std::string::npos) << out;
        auto coturn = start_coturn();
        if (!coturn) GTEST_SKIP() << "coturn (turnserver) is not installed";
        out = check_from_home_a(true);
        EXPECT_NE(out.find(coturn_line), std::string::npos) << out << coturn->output();
        EXPECT_NE(out.find(verdict), std::string::npos) << out;
        coturn->interrupt();
        coturn->wait(10.0);  // coturn ends an interrupt with 130: not ours to judge
    }

    TempDir dir;
    NetworkLab lab;  // declared before the processes, so they are gone before their namespaces
    std::unique_ptr<Process> standin;
    std::unique_ptr<Process> bridges[2];
    std::unique_ptr<Process> players[2];
};

TEST_F(Nat, PlayersBehindEndpointIndependentNatsMeetDirectlyAfterPunching) {
    build(NatKind::EndpointIndependent);
    ASSERT_NO_FATAL_FAILURE(start_standin(false));
    ASSERT_NO_FATAL_FAILURE(start_bridges());
    ASSERT_NO_FATAL_FAILURE(play());
    // Each gateway sends straight to the other router's mapping, whose port the router kept, and
    // nothing went by the relay.
    EXPECT_TRUE(logged(0, "p2p: member 2 (bramwell) at 198.51.100.130:40000 -> port sees 127.0.0.1:"))
        << bridges[0]->output();
    EXPECT_TRUE(logged(1, "p2p: member 1 (ashling) at 198.51.100.2:40000 -> port sees 127.0.0.1:"))
        << bridges[1]->output();
    EXPECT_EQ(relayed_frames(), 0);
}

TEST_F(Nat, PlayersBehindAddressDependentNatsMeetThroughTheRelay) {
    build(NatKind::AddressDependent);
    ASSERT_NO_FATAL_FAILURE(start_standin(true));
    ASSERT_NO_FATAL_FAILURE(start_bridges());
    ASSERT_NO_FATAL_FAILURE(play());
    const std::string relay = std::string(" at ") + kService + ":";
    EXPECT_TRUE(logged(0, "p2p: member 2 (bramwell)" + relay)) << bridges[0]->output();
    EXPECT_TRUE(logged(1, "p2p: member 1 (ashling)" + relay)) << bridges[1]->output();
    // At least the 50 each way that the players counted.
    EXPECT_GE(relayed_frames(), 100);
}

// A player's check before playing: a router that keeps one mapping for every destination means
// direct play; one that maps each destination anew means the relay. coturn's second port shows
// it outright (the check asks no other host than the server's own); the stand-in's one address
// leaves only the port as a hint.
TEST_F(Nat, SarnlinkCheckFindsDirectPlayLikelyBehindAnEndpointIndependentNat) {
    check_verdict(NatKind::EndpointIndependent, {"sees us as 198.51.100.2:", "ok    router: kept our port"},
                  "ok    router: keeps one public address for every destination (203.0.113.10:3480 saw 198.51.100.2:",
                  "verdict: ready, direct play likely\n");
}

TEST_F(Nat, SarnlinkCheckFindsTheRelayLikelyNeededBehindASymmetricNat) {
    check_verdict(NatKind::AddressDependent, {"note  router: changed our port "},
                  "note  router: gives every destination its own public address",
                  "verdict: ready, relay likely needed\n");
}

// Bramwell's router gives each destination a port of its own, so his punches reach ashling from
// a port that nobody was told of. Her gateway learns it from the punch and answers there, and
// the two meet without the relay.
TEST_F(Nat, APeerBehindAnAddressDependentNatIsLearnedFromItsPunch) {
    build(NatKind::FullCone, NatKind::AddressDependent);
    ASSERT_NO_FATAL_FAILURE(start_standin(false));
    ASSERT_NO_FATAL_FAILURE(start_bridges());
    ASSERT_NO_FATAL_FAILURE(play());
    EXPECT_TRUE(logged(0, "p2p: member 2 (bramwell) also at 198.51.100.130:")) << bridges[0]->output();
    EXPECT_EQ(relayed_frames(), 0);
}

}  // namespace
