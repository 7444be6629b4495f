// What the bridge must never do, whatever the player does: write a secret into the log, or listen
// anywhere but on the address it is told.

#include "support/bridge_rig.h"
#include "support/fake_port.h"

// With trace on, every flow that carries a token or a recovery code runs once: a refused token
// recovered, an account created, the identity asked for, room calls, and the game's own HTTP
// through the proxy, which adds the token. The rig then finds none of those texts in any line.
TEST(BridgeSafety, NoTokenOrRecoveryCodeReachesTheLog) {
    BridgeRig rig;
    auto first = rig.accounts->add("ash");
    rig.accounts->revoke_token("ash");
    write_file(rig.state(), json{{"accounts", {{"ash", {{"token", first.token}, {"recovery_code", first.recovery_code}}}}}}
                                .dump());
    rig.service.answer("/basic_utils/login", ScriptedAnswer::text(200, "welcome"));
    rig.config.game_proxy_routes = {{0, rig.service.base_url()}};
    rig.config.trace = true;
    ASSERT_TRUE(rig.start());

    FakeGame& ash = rig.game("ash");
    ASSERT_TRUE(rig.log.contains("velmar: recovered account 'ash'"));
    rig.game("fresh");
    ASSERT_TRUE(rig.log.contains("velmar: created account 'fresh'"));
    ASSERT_EQ(ash.request(39, 2, "")->result(), 0);
    ASSERT_EQ(ash.request(100, 3, length_prefixed(""))->result(), 0);
    ASSERT_EQ(ash.request(101, 4, length_prefixed(""))->result(), 0);

    auto answer = send("POST", rig.proxy_url() + "/basic_utils/login", "{}");
    ASSERT_EQ(answer.status, 200u) << answer.error;
    EXPECT_EQ(rig.service.requests_to("/basic_utils/login").at(0).header("X-ZQ-Token"), rig.accounts->get("ash").token);
    EXPECT_TRUE(rig.log.contains("game POST"));
    EXPECT_GE(rig.service.issued_secrets().size(), 6u);
}

namespace {

// A bridge with bind_host 127.0.0.2 and its gateway on; nothing when the machine lacks that
// address, which the caller then skips.
std::unique_ptr<zq::Bridge> bridge_on_second_loopback() {
    zq::network_init();
    zq::Socket probe = zq::open_udp_socket();
    bool answers = zq::bind_socket(probe, zq::to_sockaddr({"127.0.0.2", 0}));
    zq::close_socket(probe);
    if (!answers) return nullptr;
    zq::Config c = local_bridge_config();
    c.bind_host = "127.0.0.2";
    c.p2p_gateway = true;
    c.game_proxy_routes = {{0, "http://127.0.0.1:1"}};
    c.stun_server = "off";
    c.local_addr = "192.0.2.10";
    auto bridge = std::make_unique<zq::Bridge>(c);
    std::string error;
    EXPECT_TRUE(bridge->start(&error)) << error;
    return bridge;
}

}  // namespace

// The command, web and proxy listeners are on bind_host, here 127.0.0.2, and can't be reached on
// 127.0.0.1. The links the game is told about stand on 127.0.0.1 and nowhere else; only the
// gateway's public socket faces every interface.
TEST(BridgeSafety, ListenersAreOnBindHostAndTheLinksOnTheLoopbackOnly) {
    auto bridge = bridge_on_second_loopback();
    if (!bridge) GTEST_SKIP() << "this machine has no 127.0.0.2 on its loopback";
    ASSERT_TRUE(bridge->running());

    auto reachable = [](const std::string& host, int port) {
        zq::Socket s = zq::open_tcp_socket();
        bool connected = zq::connect_socket(s, zq::to_sockaddr({host, port}));
        zq::close_socket(s);
        return connected;
    };
    std::vector<int> tcp_ports = {bridge->bound_tcp_port(), bridge->bound_webapi_port()};
    for (int port : bridge->bound_game_proxy_ports()) tcp_ports.push_back(port);
    ASSERT_EQ(tcp_ports.size(), 3u);
    for (int port : tcp_ports) {
        EXPECT_TRUE(reachable("127.0.0.2", port)) << port;
        EXPECT_FALSE(reachable("127.0.0.1", port)) << port;
    }

    // A link: a control frame sent to its port on 127.0.0.2 goes first and must not be taken;
    // the data frame to 127.0.0.1 behind it is.
    zq::Endpoint link = bridge->gateway->add_member(2, "peer", {"192.0.2.77", 4000}, {}, "me", 1, 5, std::nullopt);
    ASSERT_EQ(link.host, "127.0.0.1");
    FakePort port;
    port.send_control({"127.0.0.2", link.port}, std::string(40, '\0'));
    port.send({"127.0.0.1", link.port}, 1, 1, "data");
    auto info = [&] { return bridge->gateway->links_snapshot().at(0); };
    ASSERT_TRUE(wait_until([&] { return info().to_peer == 1; }));
    EXPECT_EQ(info().signaling, 0u);
}

// The STUN responder: a ping to 127.0.0.1 goes first and is not answered; the answer to the one
// on 127.0.0.2 comes from that address, which a socket on every interface would not use.
TEST(BridgeSafety, StunResponderAnswersOnlyOnBindHost) {
    if (running_under_wine())
        GTEST_SKIP() << "Wine binds a UDP socket on a loopback address to the whole loopback interface, so a "
                        "ping to 127.0.0.1 reaches it there; Windows itself keeps to the address";
    auto bridge = bridge_on_second_loopback();
    if (!bridge) GTEST_SKIP() << "this machine has no 127.0.0.2 on its loopback";
    ASSERT_TRUE(bridge->running());

    zq::Socket udp = zq::open_udp_socket();
    ASSERT_TRUE(zq::bind_socket(udp, zq::to_sockaddr({"127.0.0.1", 0})));
    std::string ping(21, '\0');
    ping[0] = 1;
    for (const char* host : {"127.0.0.1", "127.0.0.2"})
        zq::send_to(udp, ping.data(), static_cast<int>(ping.size()), zq::to_sockaddr({host, bridge->bound_udp_port()}));
    std::vector<bool> ready;
    ASSERT_EQ(zq::wait_readable({udp}, 10000, ready), 1);
    char reply[64];
    zq::SockAddr from;
    EXPECT_EQ(zq::recv_from(udp, reply, sizeof reply, &from), 6);
    EXPECT_EQ(zq::from_sockaddr(from).text(), zq::Endpoint({"127.0.0.2", bridge->bound_udp_port()}).text());
    zq::close_socket(udp);
}
