#include "support/bridge_rig.h"

namespace {

json advert_of(zq::Session& session) {
    std::lock_guard<std::mutex> guard(session.session_lock);
    return session.summon_advert;
}

}  // namespace

TEST(SummonProxy, StoresTheAdvertisementEverywhereAndForwardsWithOurHeaders) {
    BridgeRig s;
    ASSERT_TRUE(s.start());
    s.game();  // connected, not logged in
    auto first = s.last_session();
    s.game("ash");
    auto second = s.last_session();
    ASSERT_TRUE(first && second && first != second);
    s.service.clear_requests();
    s.service.answer_json("/summon_messenger/create", {{"ResKind", 0}});

    const std::string advert = R"({"SessionId":"a","Slots":4})";
    auto r = send("POST", s.web_url() + "/summon_messenger/create?x=1", advert, {{"X-Game", "1"}, {"User-Agent", "g/1"}});
    EXPECT_EQ(r.status, 200u);
    EXPECT_EQ(r.body, R"({"ResKind":0})");

    auto sent = s.service.last_request();
    EXPECT_EQ(sent.path, "/summon_messenger/create");  // the query stays behind
    EXPECT_EQ(sent.body, advert);
    EXPECT_FALSE(sent.has_header("X-Game"));
    std::vector<std::pair<std::string, std::string>> ours;
    for (const auto& header : sent.headers)
        if (header.first.starts_with("X-") || header.first == "User-Agent" || header.first == "Content-Type")
            ours.push_back(header);
    EXPECT_EQ(ours, (http::HeaderList{{"Content-Type", "application/json"},
                                      {"User-Agent", s.config.user_agent},
                                      {"X-ZQ-Token", s.accounts->get("ash").token},
                                      {"X-Velmar-Ruleset", "vanilla"}}));
    EXPECT_EQ(s.log.count("summon /summon_messenger/create: " + std::to_string(advert.size()) +
                        " bytes -> HTTP 200, 13 bytes"),
              1);

    // Forwarded, but without a SessionId there is nothing to keep.
    send("POST", s.web_url() + "/summon_messenger/create", R"({"a":1})");
    EXPECT_EQ(s.service.last_request().body, R"({"a":1})");
    const json stored = json::parse(advert);
    EXPECT_EQ(advert_of(*first), stored);
    EXPECT_EQ(advert_of(*second), stored);
    std::lock_guard<std::mutex> guard(s.bridge().sessions_lock);
    EXPECT_EQ(s.bridge().last_advertisement, stored);
}

TEST(SummonProxy, RefusesEmptyAdvertsPassesStatusBodyAndPlacementOr502WhenUnreachable) {
    BridgeRig s;
    ASSERT_TRUE(s.start());
    for (const char* body : {"", "{}", "[]", "not json"}) {
        auto r = send("POST", s.web_url() + "/summon_messenger/create", body);
        EXPECT_EQ(r.status, 400u) << body;
        EXPECT_EQ(r.body, R"({"ResKind":1,"Message":"empty summon advertisement"})") << body;
    }
    EXPECT_EQ(s.service.request_count(), 0u);  // refused without going upstream

    ScriptedAnswer answer = ScriptedAnswer::text(409, R"({"ResKind":3})");
    answer.headers = {{"x-nimbra7-duskhallow-HOST-placement", "eu-2"}, {"Set-Cookie", "a=1"}};
    s.service.answer("/summon_messenger/list", answer);

    auto r = send("POST", s.web_url() + "/summon_messenger/list");
    EXPECT_EQ(r.status, 409u);
    EXPECT_EQ(r.body, R"({"ResKind":3})");
    EXPECT_EQ(http::find_header(r.headers, "Set-Cookie"), "");
    EXPECT_EQ(http::find_header(r.headers, "Content-Type"), "application/json");
    EXPECT_NE(std::find(r.headers.begin(), r.headers.end(),
                        std::pair<std::string, std::string>{"X-Nimbra7-Duskhallow-Host-Placement", "eu-2"}),
              r.headers.end());
    EXPECT_EQ(s.service.last_request().body, "");
    EXPECT_FALSE(s.service.last_request().has_header("X-ZQ-Token"));  // nobody is logged in
    EXPECT_EQ(s.log.count("summon /summon_messenger/list: 0 bytes -> HTTP 409, 13 bytes, placement eu-2"), 1);

    s.config.community_server = "http://127.0.0.1:" + std::to_string(closed_port());
    zq::Bridge* gone = s.start();
    ASSERT_TRUE(gone);
    auto failed = send("POST", "http://127.0.0.1:" + std::to_string(gone->bound_webapi_port()) + "/summon_messenger/list", "{}");
    EXPECT_EQ(failed.status, 502u);
    json body = body_of(failed);
    EXPECT_EQ(body["ResKind"], 1);
    const std::string message = body.value("Message", "");
    EXPECT_TRUE(message.starts_with("upstream unreachable: ")) << failed.body;
    EXPECT_EQ(s.log.count("summon /summon_messenger/list: " + message), 1);
}
