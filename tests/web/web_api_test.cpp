#include "p2p/gateway.h"
#include "support/fake_host.h"
#include "support/log_capture.h"

namespace {

json list(const char* key, int start) {
    return {{key, json::array()}, {"start", start}, {"size", 0}, {"totalResults", 0}};
}

}  // namespace

TEST(WebApi, AnswersItsRoutesAndLogsWhatItDoesNotKnow) {
    LogCapture log;
    FakeHost host;

    auto status = host.web("GET", "/status?x=1");
    EXPECT_EQ(status.status, 200);
    EXPECT_EQ(http::find_header(status.headers, "Content-Type"), "application/json");
    EXPECT_EQ(body_of(status), (json{{"ok", true}, {"bridge", "sarnlink"}, {"version", "0.3.2"}}));

    EXPECT_EQ(body_of(host.web("GET", "/v1/users/me/friendList?limit=5&offset=20")), list("friendList", 20));
    EXPECT_EQ(body_of(host.web("GET", "/v1/users/x/blockList?xoffset=1&offset=7")), list("blockList", 0));
    EXPECT_EQ(body_of(host.web("GET", "/v1/users/x/blockingUsers?offset=4x")), list("blockingUsers", 4));
    auto feed = host.web("POST", "/v1/users/me/feed", "{\"story\":1}");
    EXPECT_EQ(feed.status, 201);
    EXPECT_EQ(feed.body, "{}");

    const std::pair<const char*, const char*> misses[] = {
        {"POST", "/status"},
        {"GET", "/v1/users/me/friendList/"},  // a fifth, empty segment
        {"GET", "/v1/users/me/feed"},
        {"POST", "/v1/users/me/friendList"},
        {"GET", "/summon_messenger/x"},
        {"GET", "/debug/state?full=1"},  // debug_endpoints is off
    };
    for (const auto& [method, target] : misses) {
        zq::reset_log_limits();
        auto r = host.web(method, target);
        EXPECT_EQ(r.status, 404) << target;
        EXPECT_EQ(r.body, R"({"ResKind":1,"Message":"not found"})") << target;
        const std::string path = std::string(target).substr(0, std::string(target).find('?'));
        EXPECT_EQ(log.count("webapi: " + std::string(method) + " " + path + " not handled (404)"), 1) << target;
    }
    // Anyone on the machine asks for paths at will: a few lines show it, not one each.
    zq::reset_log_limits();
    for (int i = 0; i < 50; ++i) EXPECT_EQ(host.web("GET", "/nothing").status, 404);
    EXPECT_LE(log.count("webapi: GET /nothing not handled (404)"), 10);
    // A stranger's path shows in a refusal's line only so far, and as text that cannot break it.
    zq::reset_log_limits();
    EXPECT_EQ(host.web("GET", "/\x1B" + std::string(200, 'p'), "", {{"Origin", "http://evil.example"}}).status, 403);
    EXPECT_EQ(log.count("webapi: refused GET /\\x1B" + std::string(78, 'p') + " (browser page)"), 1);
    zq::reset_log_limits();
}

TEST(WebApiDebug, StateAndPeerRoutesWithTheGatewayOffAndOn) {
    FakeHost host;
    host.settings.debug_endpoints = true;
    host.stun["Alice"] = zq::Endpoint{"127.0.0.1", 4000};
    host.advert = {{"SessionId", "ad"}};
    EXPECT_EQ(body_of(host.web("GET", "/debug/state")), (json{{"registry", {{"Alice", {"127.0.0.1", 4000}}}},
                                                             {"last_advertisement", host.advert},
                                                             {"gateway", false},
                                                             {"mapped", nullptr},
                                                             {"relay_port", 0},
                                                             {"peers", json::array()}}));
    EXPECT_EQ(host.web("POST", "/debug/add_peer", "{}").status, 404);
    EXPECT_EQ(host.web("POST", "/debug/remove_peer", "{}").status, 404);

    // With the gateway on, the peer routes drive it.
    zq::p2p::Gateway gateway(0, std::nullopt, "127.0.0.1", nullptr);
    ASSERT_TRUE(gateway.start(nullptr));
    host.gate = &gateway;
    const json peer = {{"member_id", 2},          {"online_id", "Bob"},       {"endpoint", {"203.0.113.5", 4000}},
                       {"port_online_id", "Me"},  {"port_member_id", 1},      {"room_id", 77},
                       {"local_endpoint", {"192.168.1.5", 4001}},             {"port_endpoint", {"127.0.0.1", 3658}}};
    json bob = body_of(host.web("POST", "/debug/add_peer", peer.dump()))["inner"];
    ASSERT_TRUE(bob.is_array() && bob.size() == 2 && bob[0] == "127.0.0.1" && bob[1] > 0) << bob;
    // A body that is no JSON still adds a member, with everything empty.
    json blank = body_of(host.web("POST", "/debug/add_peer", "not json"))["inner"];

    json on_state = body_of(host.web("GET", "/debug/state"));
    EXPECT_EQ(on_state["gateway"], true);
    EXPECT_EQ(on_state["relay_port"], 0);
    auto row = [](int member, const char* online_id, const json& inner, int port_member, int room) {
        return json{{"member_id", member},      {"online_id", online_id},      {"inner", inner},
                    {"peer_member_id", member}, {"port_member_id", port_member}, {"room_id", room}};
    };
    EXPECT_EQ(on_state["peers"], json::array({row(0, "", blank, 0, 0), row(2, "Bob", bob, 1, 77)}));

    EXPECT_EQ(host.web("POST", "/debug/remove_peer", R"({"member_id":2})").body, "{}");
    EXPECT_EQ(body_of(host.web("GET", "/debug/state"))["peers"].size(), 1u);
}
