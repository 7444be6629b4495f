#include "support/fake_host.h"
#include "support/fake_service.h"
#include "support/log_capture.h"

namespace {

// A host whose community server is the fake service, with a player signed in.
struct SummonRig {
    SummonRig() {
        EXPECT_TRUE(service.start());
        host.settings = local_bridge_config(service.base_url());
        host.signed_in = {"tok-ash", "vanilla"};
    }
    LogCapture log;
    FakeService service;
    FakeHost host;
};

}  // namespace

TEST(SummonProxy, KeepsTheAdvertisementAndForwardsWithOurHeadersOnly) {
    SummonRig s;
    s.service.answer_json("/summon_messenger/create", {{"ResKind", 0}});

    const std::string advert = R"({"SessionId":"a","Slots":4})";
    auto r = s.host.web("POST", "/summon_messenger/create?x=1", advert, {{"X-Game", "1"}, {"User-Agent", "g/1"}});
    EXPECT_EQ(r.status, 200);
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
                                      {"User-Agent", s.host.settings.user_agent},
                                      {"X-ZQ-Token", "tok-ash"},
                                      {"X-Velmar-Ruleset", "vanilla"}}));
    EXPECT_EQ(s.log.count("summon /summon_messenger/create: " + std::to_string(advert.size()) +
                          " bytes -> HTTP 200, 13 bytes"),
              1);

    // Forwarded, but without a SessionId there is nothing to keep.
    s.host.web("POST", "/summon_messenger/create", R"({"a":1})");
    EXPECT_EQ(s.service.last_request().body, R"({"a":1})");
    EXPECT_EQ(s.host.advert, json::parse(advert));
}

TEST(SummonProxy, RefusesEmptyAdvertsPassesStatusBodyAndPlacementOr502WhenUnreachable) {
    SummonRig s;
    s.host.signed_in = {};
    for (const char* body : {"", "{}", "[]", "not json"}) {
        auto r = s.host.web("POST", "/summon_messenger/create", body);
        EXPECT_EQ(r.status, 400) << body;
        EXPECT_EQ(r.body, R"({"ResKind":1,"Message":"empty summon advertisement"})") << body;
    }
    EXPECT_EQ(s.service.request_count(), 0u);  // refused without going upstream

    ScriptedAnswer answer = ScriptedAnswer::text(409, R"({"ResKind":3})");
    answer.headers = {{"x-nimbra7-duskhallow-HOST-placement", "eu-2"}, {"Set-Cookie", "a=1"}};
    s.service.answer("/summon_messenger/list", answer);

    auto r = s.host.web("POST", "/summon_messenger/list");
    EXPECT_EQ(r.status, 409);
    EXPECT_EQ(r.body, R"({"ResKind":3})");
    EXPECT_EQ(r.headers, (http::HeaderList{{"Content-Type", "application/json"},
                                           {"X-Nimbra7-Duskhallow-Host-Placement", "eu-2"}}));
    EXPECT_EQ(s.service.last_request().body, "");
    EXPECT_FALSE(s.service.last_request().has_header("X-ZQ-Token"));  // nobody is logged in
    EXPECT_EQ(s.log.count("summon /summon_messenger/list: 0 bytes -> HTTP 409, 13 bytes, placement eu-2"), 1);

    s.host.settings.community_server = "http://127.0.0.1:" + std::to_string(closed_port());
    auto failed = s.host.web("POST", "/summon_messenger/list", "{}");
    EXPECT_EQ(failed.status, 502);
    json body = body_of(failed);
    EXPECT_EQ(body["ResKind"], 1);
    const std::string message = body.value("Message", "");
    EXPECT_TRUE(message.starts_with("upstream unreachable: ")) << failed.body;
    EXPECT_EQ(s.log.count("summon /summon_messenger/list: " + message), 1);
}
