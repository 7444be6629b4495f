#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "web/paths.h"
#include "web_support.h"
// After web_support.h: process.h must come before wait.h.
#include "support/log_capture.h"

using nlohmann::json;
using testing_support::LogCapture;
using web_test::RunningBridge;
using web_test::send;

namespace {

json body_of(const http::ClientResponse& r) { return json::parse(r.body, nullptr, false); }

const json not_found = {{"ResKind", 1}, {"Message", "not found"}};

}  // namespace

TEST(WebApiPaths, SegmentsAndOffsetFollowTheirRules) {
    using zq::web::path_segments;
    EXPECT_EQ(path_segments("/v1/users/a/feed"), (std::vector<std::string>{"v1", "users", "a", "feed"}));
    EXPECT_EQ(path_segments("/v1/users/a/feed/").size(), 5u);
    EXPECT_TRUE(path_segments("").empty());
    EXPECT_EQ(path_segments("/"), (std::vector<std::string>{""}));

    using zq::web::query_offset;
    EXPECT_EQ(query_offset("/x?offset=7"), 7);
    EXPECT_EQ(query_offset("/x?limit=5&offset=20"), 20);
    EXPECT_EQ(query_offset("/x?xoffset=1&offset=7"), 0);  // only the first occurrence counts
    EXPECT_EQ(query_offset("/x?offset=abc"), 0);
    EXPECT_EQ(query_offset("/x?offset=12abc"), 12);
    EXPECT_EQ(query_offset("/x?offset=99999999999999999999"), 0);
    EXPECT_EQ(query_offset("/x"), 0);
}

TEST(WebApi, AnswersItsRoutesAndLogsWhatItDoesNotKnow) {
    LogCapture log;
    RunningBridge b(web_test::bridge_config("http://127.0.0.1:1"));
    const std::string web = b.web_url();

    auto status = send("GET", web + "/status?x=1");
    EXPECT_EQ(status.error, "");
    EXPECT_EQ(status.status, 200u);
    EXPECT_EQ(http::find_header(status.headers, "Content-Type"), "application/json");
    EXPECT_EQ(body_of(status), (json{{"ok", true}, {"bridge", "sarnlink"}, {"version", "0.3.2"}}));

    auto friends = send("GET", web + "/v1/users/me/friendList?limit=5&offset=20");
    EXPECT_EQ(friends.status, 200u);
    EXPECT_EQ(body_of(friends), (json{{"friendList", json::array()}, {"start", 20}, {"size", 0}, {"totalResults", 0}}));
    auto blocks = send("GET", web + "/v1/users/someone/blockList");
    EXPECT_EQ(body_of(blocks), (json{{"blockList", json::array()}, {"start", 0}, {"size", 0}, {"totalResults", 0}}));

    auto feed = send("POST", web + "/v1/users/me/feed", "{\"story\":1}");
    EXPECT_EQ(feed.status, 201u);
    EXPECT_EQ(body_of(feed), json::object());

    struct Miss {
        const char* method;
        const char* target;
        const char* logged_path;
    } misses[] = {
        {"POST", "/status", "/status"},
        {"GET", "/v1/users/me/friendList/", "/v1/users/me/friendList/"},
        {"GET", "/v1/users/me/feed", "/v1/users/me/feed"},
        {"POST", "/v1/users/me/friendList", "/v1/users/me/friendList"},
        {"GET", "/summon_messenger/x", "/summon_messenger/x"},
        {"GET", "/debug/state?full=1", "/debug/state"},  // debug_endpoints is off
        {"GET", "/Status", "/Status"},
    };
    for (const Miss& miss : misses) {
        auto r = send(miss.method, web + miss.target);
        EXPECT_EQ(r.status, 404u) << miss.method << " " << miss.target;
        EXPECT_EQ(body_of(r), not_found) << miss.target;
        EXPECT_EQ(log.count(std::string("webapi: ") + miss.method + " " + miss.logged_path + " not handled (404)"), 1)
            << miss.target;
    }
}

TEST(WebApi, CurlSeesTheSameAnswers) {
    SKIP_CURL_UNDER_WINE();
    RunningBridge b(web_test::bridge_config("http://127.0.0.1:1"));
    auto friends = web_test::curl({b.web_url() + "/v1/users/me/blockingUsers?offset=3"});
    EXPECT_EQ(friends.exit_code, 0) << friends.output;
    EXPECT_EQ(json::parse(friends.output, nullptr, false),
              (json{{"blockingUsers", json::array()}, {"start", 3}, {"size", 0}, {"totalResults", 0}}));

    auto missing = web_test::curl({"-X", "POST", "-w", "\n%{http_code}", b.web_url() + "/status"});
    EXPECT_EQ(missing.output, "{\"ResKind\":1,\"Message\":\"not found\"}\n404");
}

TEST(WebApiDebug, StateShowsTheRegistryAndTheAdvertisementWithTheGatewayOff) {
    LogCapture log;
    zq::Config c = web_test::bridge_config("http://127.0.0.1:1");
    c.debug_endpoints = true;
    RunningBridge b(c);
    {
        std::lock_guard<std::mutex> guard(b.bridge.endpoints_lock);
        b.bridge.stun_table["Alice"] = zq::Endpoint{"127.0.0.1", 4000};
    }
    {
        std::lock_guard<std::mutex> guard(b.bridge.sessions_lock);
        b.bridge.last_advertisement = json{{"SessionId", "s1"}};
    }

    auto state = send("GET", b.web_url() + "/debug/state");
    EXPECT_EQ(state.status, 200u);
    EXPECT_EQ(body_of(state), (json{{"registry", {{"Alice", {"127.0.0.1", 4000}}}},
                                    {"last_advertisement", {{"SessionId", "s1"}}},
                                    {"gateway", false},
                                    {"mapped", nullptr},
                                    {"relay_port", 0},
                                    {"peers", json::array()}}));

    // Without a gateway the peer routes are not there at all.
    for (const char* route : {"/debug/add_peer", "/debug/remove_peer"}) {
        auto r = send("POST", b.web_url() + route, "{\"member_id\":1}");
        EXPECT_EQ(r.status, 404u) << route;
        EXPECT_EQ(log.count(std::string("webapi: POST ") + route + " not handled (404)"), 1);
    }
}

TEST(WebApiDebug, PeerRoutesDriveTheGateway) {
    zq::Config c = web_test::bridge_config("http://127.0.0.1:1");
    c.debug_endpoints = true;
    c.p2p_gateway = true;
    c.stun_server = "off";
    RunningBridge b(c);
    const std::string web = b.web_url();

    const json peer = {{"member_id", 2},           {"online_id", "Bob"},
                       {"endpoint", {"203.0.113.5", 4000}}, {"local_endpoint", {"192.168.1.5", 4001}},
                       {"port_online_id", "Me"},   {"port_member_id", 1},
                       {"room_id", 77},            {"port_endpoint", {"127.0.0.1", 3658}}};
    auto added = send("POST", web + "/debug/add_peer", peer.dump());
    EXPECT_EQ(added.status, 200u);
    json inner = body_of(added)["inner"];
    ASSERT_TRUE(inner.is_array() && inner.size() == 2) << added.body;
    EXPECT_EQ(inner[0], "127.0.0.1");
    EXPECT_GT(inner[1].get<int>(), 0);

    // A body that is no JSON still adds a member, with everything empty.
    auto blank = send("POST", web + "/debug/add_peer", "not json");
    EXPECT_EQ(body_of(blank)["inner"][0], "127.0.0.1");

    json state = body_of(send("GET", web + "/debug/state"));
    EXPECT_EQ(state["gateway"], true);
    EXPECT_EQ(state["mapped"], nullptr);
    EXPECT_EQ(state["relay_port"], 0);
    EXPECT_EQ(state["peers"], (json{{{"member_id", 0},
                                     {"online_id", ""},
                                     {"inner", body_of(blank)["inner"]},
                                     {"peer_member_id", 0},
                                     {"port_member_id", 0},
                                     {"room_id", 0}},
                                    {{"member_id", 2},
                                     {"online_id", "Bob"},
                                     {"inner", inner},
                                     {"peer_member_id", 2},
                                     {"port_member_id", 1},
                                     {"room_id", 77}}}));

    auto removed = send("POST", web + "/debug/remove_peer", R"({"member_id":2})");
    EXPECT_EQ(removed.status, 200u);
    EXPECT_EQ(removed.body, "{}");
    EXPECT_EQ(body_of(send("GET", web + "/debug/state"))["peers"].size(), 1u);
}
