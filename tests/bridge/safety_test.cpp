// What the bridge must never do, whatever the player does: write a secret into the log, or listen
// anywhere but on the address it is told.

#include <gtest/gtest.h>

#include "bridge/bridge.h"
#include "bridge/frames.h"
#include "http/fetch.h"
#include "shell/platform.h"
#include "support/bridge_config.h"
#include "support/fake_accounts.h"
#include "support/fake_game.h"
#include "support/fake_port.h"
#include "support/fake_service.h"
#include "support/files.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/process.h"

using nlohmann::json;
using testing_support::FakeGame;
using testing_support::length_prefixed;
using testing_support::login_body;
using testing_support::LogCapture;
using testing_support::TempDir;
using testing_support::wait_until;

// With trace on, every flow that carries a token or a recovery code runs once: a refused token
// recovered, an account created, the identity asked for, room calls, and the game's own HTTP
// through the proxy, which adds the token. None of those texts may appear in any line.
TEST(BridgeSafety, NoTokenOrRecoveryCodeReachesTheLog) {
    TempDir dir;
    testing_support::FakeService service;
    ASSERT_TRUE(service.start());
    testing_support::FakeAccounts store{service};
    auto first = store.add("ash");
    store.revoke_token("ash");
    testing_support::write_file(dir.path() / "state.json",
                                json{{"accounts", {{"ash", {{"token", first.token},
                                                            {"recovery_code", first.recovery_code}}}}}}
                                    .dump());
    service.answer_json("/mp/matching2/context_start", {{"ResKind", 0}});
    service.answer_json("/mp/matching2/create_room", {{"ResKind", 0}, {"RoomId", 5}, {"SessionId", "s5"}});
    service.answer_json("/np/events/poll", {{"HasEvent", 0}});
    service.answer("/basic_utils/login", testing_support::ScriptedAnswer::text(200, "welcome"));

    zq::Config c = testing_support::local_bridge_config(service.base_url());
    c.game_proxy_routes = {{0, service.base_url()}};
    c.state_file = zq::wide_to_utf8((dir.path() / "state.json").wstring());
    c.create_accounts = true;
    c.trace = true;
    LogCapture log;
    zq::Bridge bridge(c);
    ASSERT_TRUE(bridge.start(nullptr));

    FakeGame ash, fresh;
    ASSERT_TRUE(ash.connect_and_greet(bridge.bound_tcp_port()));
    ASSERT_TRUE(fresh.connect_and_greet(bridge.bound_tcp_port()));
    ASSERT_EQ(ash.request(0, 1, login_body("ash"))->result(), 0);
    ASSERT_TRUE(log.contains("velmar: recovered account 'ash'"));
    ASSERT_EQ(fresh.request(0, 1, login_body("fresh"))->result(), 0);
    ASSERT_TRUE(log.contains("velmar: created account 'fresh'"));
    ASSERT_EQ(ash.request(39, 2, "")->result(), 0);
    ASSERT_EQ(ash.request(100, 3, length_prefixed(""))->result(), 0);
    ASSERT_EQ(ash.request(101, 4, length_prefixed(""))->result(), 0);

    http::ClientRequest game_call;
    game_call.url = zq::format_text("http://127.0.0.1:%d/basic_utils/login", bridge.bound_game_proxy_ports().at(0));
    game_call.body = "{}";
    auto answer = http::fetch(game_call);
    ASSERT_EQ(answer.status, 200u) << answer.error;
    const std::string token = store.get("ash").token;
    EXPECT_EQ(service.requests_to("/basic_utils/login").at(0).header("X-ZQ-Token"), token);
    EXPECT_TRUE(log.contains("game POST"));
    bridge.stop();

    const std::string secrets[] = {first.token, first.recovery_code, token, store.get("ash").recovery_code,
                                   store.get("fresh").token, store.get("fresh").recovery_code};
    for (const auto& secret : secrets) {
        ASSERT_FALSE(secret.empty());
        EXPECT_FALSE(log.contains(secret)) << secret;
    }
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
    zq::Config c = testing_support::local_bridge_config();
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
    testing_support::FakePort port;
    port.send_control({"127.0.0.2", link.port}, std::string(40, '\0'));
    port.send({"127.0.0.1", link.port}, 1, 1, "data");
    auto info = [&] { return bridge->gateway->links_snapshot().at(0); };
    ASSERT_TRUE(wait_until([&] { return info().to_peer == 1; }));
    EXPECT_EQ(info().signaling, 0u);
}

// The STUN responder: a ping to 127.0.0.1 goes first and is not answered; the answer to the one
// on 127.0.0.2 comes from that address, which a socket on every interface would not use.
TEST(BridgeSafety, StunResponderAnswersOnlyOnBindHost) {
    if (testing_support::running_under_wine())
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
