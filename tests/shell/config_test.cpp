#include "shell/config.h"
#include "support/prelude.h"

namespace {

zq::Config config_from_json(const json& doc) {
    zq::Config c;
    std::string problem;
    EXPECT_TRUE(zq::config_from_json(doc, c, problem)) << problem;
    return c;
}

}  // namespace

// Anything but an object means every default: the ports the launcher points the game at, and
// nothing open beyond the loopback.
TEST(Config, DefaultsForAnythingButAnObject) {
    for (const char* text : {"{}", "[]", "7", "null", "\"text\""}) {
        zq::Config c = config_from_json(json::parse(text));
        EXPECT_EQ((std::vector<int>{c.tcp_port, c.udp_port, c.webapi_port, c.port_p2p_port}),
                  (std::vector<int>{31313, 31314, 31315, 3658}))
            << text;
        EXPECT_EQ(c.bind_host, "127.0.0.1") << text;
        EXPECT_TRUE(c.p2p_gateway) << text;
        EXPECT_TRUE(c.port_mapping) << text;
        EXPECT_EQ(c.p2p_keepalive, 15.0) << text;
        ASSERT_EQ(c.game_proxy_routes.size(), 2u) << text;
        EXPECT_EQ(c.game_proxy_routes.begin()->first, 31316) << text;
        EXPECT_EQ(c.state_file, "sarnlink_state.json") << text;
    }
}

// Wrong types are converted where possible and otherwise replaced by the default; so is a
// routing table that is no object, and of two keys for one port the later in sorted order wins.
TEST(Config, ToleratesWrongTypesAndRoutingKeys) {
    zq::Config c = config_from_json(json::parse(R"({
        "tcp_port": "31400abc", "udp_port": true, "webapi_port": "abc", "p2p_port": 7.9,
        "trace": "yes", "debug_endpoints": "1", "create_accounts": 1.5, "p2p_gateway": "no",
        "poll_interval": "1", "stun_refresh": 2, "user_agent": 7, "stun_server": true,
        "bind_host": null, "state_file": ["a"], "local_addr": -3, "port_mapping": 0, "p2p_keepalive": 0
    })"));
    EXPECT_EQ((std::vector<int>{c.tcp_port, c.udp_port, c.webapi_port, c.p2p_port}),
              (std::vector<int>{31400, 1, 31315, 7}));
    EXPECT_EQ((std::vector<bool>{c.trace, c.debug_endpoints, c.create_accounts, c.p2p_gateway, c.port_mapping}),
              (std::vector<bool>{false, true, true, true, false}));
    EXPECT_EQ((std::vector<double>{c.poll_interval, c.stun_refresh, c.p2p_keepalive}),
              (std::vector<double>{0.4, 2.0, 0.0}));
    EXPECT_EQ((std::vector<std::string>{c.user_agent, c.stun_server, c.bind_host, c.state_file, c.local_addr}),
              (std::vector<std::string>{"7", "true", "127.0.0.1", "[\"a\"]", "-3"}));
    EXPECT_DOUBLE_EQ(config_from_json(json::parse(R"({"poll_interval": 1})")).poll_interval, 1.0);

    EXPECT_TRUE(config_from_json(json::parse(R"({"game_proxy_routes": {}})")).game_proxy_routes.empty());
    EXPECT_EQ(config_from_json(json::parse(R"({"game_proxy_routes": []})")).game_proxy_routes.size(), 2u);

    auto routes = config_from_json(json::parse(R"({"game_proxy_routes": {"031316": "a", "31316": "b", " 9x": "c"}})"))
                      .game_proxy_routes;
    ASSERT_EQ(routes.size(), 2u);
    EXPECT_EQ(routes.at(31316), "b");  // the later key in sorted order wins
    EXPECT_EQ(routes.at(9), "c");
}

// A routing table with a hole, a port that would be cut to 16 bits, and the values that would
// stop the bridge or silently open it to the network, are refused with the key and the reason;
// a bind_host name becomes the address it stands for, never every interface.
TEST(Config, RefusesWhatWouldStopOrOpenTheBridge) {
    const std::pair<const char*, std::string> cases[] = {
        {R"({"game_proxy_routes": {"abc": "x"}})", R"(game_proxy_routes key "abc" is not a port number)"},
        {R"({"game_proxy_routes": {"31316": 5}})", R"(game_proxy_routes value for "31316" is not a URL text)"},
        {R"({"game_proxy_routes": {"70000": "x"}})", R"(game_proxy_routes key "70000" is not a port from 0 to 65535)"},
        {R"({"game_proxy_routes": {"-1": "x"}})", R"(game_proxy_routes key "-1" is not a port from 0 to 65535)"},
        {R"({"game_proxy_routes": {"99999999999": "x"}})",
         R"(game_proxy_routes key "99999999999" is not a port from 0 to 65535)"},
        {R"({"tcp_port": 70000})", "tcp_port 70000 is not a port from 0 to 65535"},
        {R"({"udp_port": -1})", "udp_port -1 is not a port from 0 to 65535"},
        {R"({"webapi_port": "4294998609"})", "webapi_port 4294998609 is not a port from 0 to 65535"},
        {R"({"p2p_port": 65536.5})", "p2p_port 65536 is not a port from 0 to 65535"},
        {R"({"port_p2p_port": -3658})", "port_p2p_port -3658 is not a port from 0 to 65535"},
        {R"({"tcp_port": 0, "p2p_port": 65535, "port_p2p_port": 0, "bind_host": "127.0.0.1"})", ""},
        {R"({"stun_server": "stun.example:abc"})",
         R"(stun_server "stun.example:abc" has no port from 1 to 65535 after the colon)"},
        {R"({"stun_server": "stun.example:99999"})",
         R"(stun_server "stun.example:99999" has no port from 1 to 65535 after the colon)"},
        {R"({"stun_server": ":3478"})", R"(stun_server ":3478" has no host before the colon)"},
        {R"({"bind_host": ""})",
         R"(bind_host "" is not an IPv4 address, and no IPv4 address was found for that name)"},
        {R"({"bind_host": "localhost", "stun_server": "stun.example:3478"})", ""},
    };
    for (const auto& [text, expected] : cases) {
        zq::Config config;
        std::string problem;
        if (zq::config_from_json(json::parse(text), config, problem)) zq::settle_bridge_config(config, problem);
        EXPECT_EQ(problem, expected) << text;
        if (expected.empty()) EXPECT_EQ(config.bind_host, "127.0.0.1");
    }
}

TEST(Config, PickStunServer) {
    struct Case {
        std::string stun, velmar;
        std::optional<zq::Endpoint> expected;
    } cases[] = {
        {"off", "https://svc.example:18671", std::nullopt},
        {"stun.example:3479", "", zq::Endpoint{"stun.example", 3479}},
        {"stun.example", "", zq::Endpoint{"stun.example", 3478}},
        {"", "https://svc.example:18671/base", zq::Endpoint{"svc.example", 3478}},
        {"", "svc.example/x", zq::Endpoint{"svc.example", 3478}},
        {"", "https://", std::nullopt},
        {"", "", std::nullopt},
    };
    for (const auto& c : cases) {
        zq::Config config;
        config.stun_server = c.stun;
        config.velmar_server = c.velmar;
        EXPECT_EQ(zq::pick_stun_server(config), c.expected) << c.stun << " " << c.velmar;
    }
    // Unsettled, a port that is no number ends the start like any broken setting.
    zq::Config broken;
    broken.stun_server = "stun.example:port";
    EXPECT_THROW(zq::pick_stun_server(broken), std::exception);
}
