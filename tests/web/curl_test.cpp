#include "web_support.h"

#include <nlohmann/json.hpp>

using testing_support::FakeService;
using testing_support::ScriptedAnswer;
using web_test::curl;

// The same endpoints as a command-line client sees them, status lines and all.
TEST(WebCurl, SeesTheWebApiAndBothProxies) {
    if (testing_support::running_under_wine() || testing_support::find_program("curl").empty())
        GTEST_SKIP() << "the curl command line exists on the Linux side only";
    FakeService service;
    ASSERT_TRUE(service.start());
    ScriptedAnswer moved = ScriptedAnswer::text(302, "elsewhere");
    moved.headers = {{"Location", "https://example.invalid/next"}};
    service.answer("/old", moved);
    zq::Config c = web_test::local_bridge_config(service.base_url());
    const int listen = web_test::closed_port();
    c.game_proxy_routes = {{0, service.base_url()},
                           {listen, "http://127.0.0.1:" + std::to_string(web_test::closed_port(listen))}};
    web_test::RunningBridge b(c);
    const std::string web = b.web_url();

    EXPECT_EQ(nlohmann::json::parse(curl({web + "/v1/users/me/friendList?offset=3"})),
              (nlohmann::json{{"friendList", nlohmann::json::array()}, {"start", 3}, {"size", 0}, {"totalResults", 0}}));
    EXPECT_EQ(curl({"-X", "POST", "-w", " %{http_code}", web + "/status"}), R"({"ResKind":1,"Message":"not found"} 404)");
    EXPECT_EQ(curl({"-X", "POST", "-w", " %{http_code}", web + "/summon_messenger/create"}),
              R"({"ResKind":1,"Message":"empty summon advertisement"} 400)");
    EXPECT_EQ(service.request_count(), 0u);

    std::string out = curl({"-i", "-A", "", "-X", "PUT", b.proxy_url() + "/old"});
    EXPECT_TRUE(out.starts_with("HTTP/1.1 302 Status\r\n")) << out;
    EXPECT_NE(out.find("\r\nLocation: https://example.invalid/next\r\n"), std::string::npos) << out;
    EXPECT_TRUE(out.ends_with("\r\n\r\nelsewhere")) << out;
    // A game that names no agent gets the configured one alone.
    EXPECT_EQ(service.last_request().header("User-Agent"), b.bridge.config().user_agent);

    const std::string dead = "http://127.0.0.1:" + std::to_string(b.bridge.bound_game_proxy_ports().at(1));
    out = curl({"-i", "-d", "x", dead + "/blood_messenger/a"});
    EXPECT_TRUE(out.starts_with("HTTP/1.1 502 Bad Gateway\r\n")) << out;
    EXPECT_NE(out.find("Content-Length: 0\r\n"), std::string::npos) << out;
    EXPECT_TRUE(out.ends_with("\r\n\r\n")) << out;
}
