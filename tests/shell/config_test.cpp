#include <gtest/gtest.h>

#include "shell/config.h"
#include "shell/version.h"

using nlohmann::json;

namespace {

zq::Config config_from_json(const json& doc) {
    zq::Config c;
    std::string problem;
    EXPECT_TRUE(zq::config_from_json(doc, c, problem)) << problem;
    return c;
}

bool refused(const char* text) {
    zq::Config c;
    std::string problem;
    return !zq::config_from_json(json::parse(text), c, problem) && !problem.empty();
}

}  // namespace

TEST(Config, DefaultsForAnythingButAnObject) {
    for (const char* text : {"{}", "[]", "7", "null", "\"text\""}) {
        zq::Config c = config_from_json(json::parse(text));
        EXPECT_EQ(c.bind_host, "127.0.0.1") << text;
        EXPECT_EQ(c.tcp_port, 31313);
        EXPECT_EQ(c.udp_port, 31314);
        EXPECT_EQ(c.webapi_port, 31315);
        EXPECT_TRUE(c.p2p_gateway);
        EXPECT_EQ(c.port_p2p_port, 3658);
        EXPECT_DOUBLE_EQ(c.poll_interval, 0.4);
        EXPECT_DOUBLE_EQ(c.stun_refresh, 15.0);
        EXPECT_EQ(c.state_file, "sarnlink_state.json");
        EXPECT_EQ(c.user_agent, std::string("sarnlink/") + zq::kVersion);
        ASSERT_EQ(c.game_proxy_routes.size(), 2u);
        EXPECT_EQ(c.game_proxy_routes.begin()->first, 31316);
        EXPECT_NE(c.game_proxy_routes.at(31316).find(":20443"), std::string::npos);
        EXPECT_NE(c.game_proxy_routes.at(31317).find(":18671"), std::string::npos);
        EXPECT_EQ(c.auth_server.find(':', 6), std::string::npos) << "the auth server has no port";
    }
}

// Wrong types are converted where possible and otherwise replaced by the default.
TEST(Config, ToleratesWrongTypes) {
    zq::Config c = config_from_json(json::parse(R"({
        "tcp_port": "31400abc", "udp_port": true, "webapi_port": "abc", "p2p_port": 7.9,
        "trace": "yes", "debug_endpoints": "1", "create_accounts": 1.5, "p2p_gateway": "no",
        "poll_interval": "1", "stun_refresh": 2, "user_agent": 7, "stun_server": true,
        "bind_host": null, "state_file": ["a"], "local_addr": -3
    })"));
    EXPECT_EQ(c.tcp_port, 31400);
    EXPECT_EQ(c.udp_port, 1);
    EXPECT_EQ(c.webapi_port, 31315);
    EXPECT_EQ(c.p2p_port, 7);
    EXPECT_FALSE(c.trace);
    EXPECT_TRUE(c.debug_endpoints);
    EXPECT_TRUE(c.create_accounts);
    EXPECT_TRUE(c.p2p_gateway);
    EXPECT_DOUBLE_EQ(c.poll_interval, 0.4);
    EXPECT_DOUBLE_EQ(c.stun_refresh, 2.0);
    EXPECT_EQ(c.user_agent, "7");
    EXPECT_EQ(c.stun_server, "true");
    EXPECT_EQ(c.bind_host, "127.0.0.1");
    EXPECT_EQ(c.state_file, "[\"a\"]");
    EXPECT_EQ(c.local_addr, "-3");
    EXPECT_DOUBLE_EQ(config_from_json(json::parse(R"({"poll_interval": 1})")).poll_interval, 1.0);
}

TEST(Config, GameProxyRoutes) {
    EXPECT_TRUE(config_from_json(json::parse(R"({"game_proxy_routes": {}})")).game_proxy_routes.empty());
    EXPECT_EQ(config_from_json(json::parse(R"({"game_proxy_routes": []})")).game_proxy_routes.size(), 2u);
    EXPECT_EQ(config_from_json(json::parse(R"({"game_proxy_routes": null})")).game_proxy_routes.size(), 2u);

    auto routes = config_from_json(json::parse(R"({"game_proxy_routes": {"031316": "a", "31316": "b", " 9x": "c"}})"))
                      .game_proxy_routes;
    ASSERT_EQ(routes.size(), 2u);
    EXPECT_EQ(routes.at(31316), "b");  // the later key in sorted order wins
    EXPECT_EQ(routes.at(9), "c");

    // A routing table with a hole is refused outright.
    EXPECT_TRUE(refused(R"({"game_proxy_routes": {"abc": "x"}})"));
    EXPECT_TRUE(refused(R"({"game_proxy_routes": {"31316": 5}})"));
    EXPECT_TRUE(refused(R"({"game_proxy_routes": {"99999999999": "x"}})"));
    EXPECT_TRUE(refused(R"({"game_proxy_routes": {"-1": "x"}})"));
}
