#include "web_support.h"

#include <nlohmann/json.hpp>

using nlohmann::json;
using testing_support::FakeService;
using testing_support::LogCapture;
using testing_support::ScriptedAnswer;
using web_test::RunningBridge;
using web_test::send;

namespace {

struct SummonSetup {
    FakeService service;
    std::unique_ptr<RunningBridge> b;
    SummonSetup() {
        EXPECT_TRUE(service.start());
        b = std::make_unique<RunningBridge>(web_test::local_bridge_config(service.base_url()));
    }
    std::string url(const std::string& target) const { return b->web_url() + target; }
};

json advert_of(zq::Session& session) {
    std::lock_guard<std::mutex> guard(session.session_lock);
    return session.summon_advert;
}

}  // namespace

TEST(SummonProxy, EmptyAdvertisementsAreRefusedWithoutGoingUpstream) {
    SummonSetup s;
    const std::string refused = R"({"ResKind":1,"Message":"empty summon advertisement"})";
    for (const char* body : {"", "{}", "[]", "not json"}) {
        auto r = send("POST", s.url("/summon_messenger/create"), body);
        EXPECT_EQ(r.status, 400u) << body;
        EXPECT_EQ(r.body, refused) << body;
    }
    EXPECT_EQ(s.service.request_count(), 0u);
}

TEST(SummonProxy, StoresTheAdvertisementEverywhereAndForwardsWithOurHeaders) {
    LogCapture log;
    SummonSetup s;
    auto first = s.b->connect_game();  // connected, not logged in
    auto second = s.b->connect_game("tok-2");
    ASSERT_TRUE(first && second && first != second);
    s.service.answer_json("/summon_messenger/create", {{"ResKind", 0}});

    const std::string advert = R"({"SessionId":"a","Slots":4})";
    auto r = send("POST", s.url("/summon_messenger/create?x=1"), advert, {{"X-Game", "1"}, {"User-Agent", "g/1"}});
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
                                      {"User-Agent", s.b->bridge.config().user_agent},
                                      {"X-ZQ-Token", "tok-2"},
                                      {"X-Velmar-Ruleset", "vanilla"}}));
    EXPECT_EQ(log.count("summon /summon_messenger/create: " + std::to_string(advert.size()) +
                        " bytes -> HTTP 200, 13 bytes"),
              1);

    // Forwarded, but without a SessionId there is nothing to keep.
    send("POST", s.url("/summon_messenger/create"), R"({"a":1})");
    EXPECT_EQ(s.service.last_request().body, R"({"a":1})");
    const json stored = json::parse(advert);
    EXPECT_EQ(advert_of(*first), stored);
    EXPECT_EQ(advert_of(*second), stored);
    std::lock_guard<std::mutex> guard(s.b->bridge.sessions_lock);
    EXPECT_EQ(s.b->bridge.last_advertisement, stored);
}

TEST(SummonProxy, PassesStatusBodyAndPlacementOnlyOr502WhenUnreachable) {
    LogCapture log;
    SummonSetup s;
    ScriptedAnswer answer = ScriptedAnswer::text(409, R"({"ResKind":3})");
    answer.headers = {{"x-nimbra7-duskhallow-HOST-placement", "eu-2"}, {"Set-Cookie", "a=1"}};
    s.service.answer("/summon_messenger/list", answer);

    auto r = send("POST", s.url("/summon_messenger/list"));
    EXPECT_EQ(r.status, 409u);
    EXPECT_EQ(r.body, R"({"ResKind":3})");
    EXPECT_EQ(http::find_header(r.headers, "Set-Cookie"), "");
    EXPECT_EQ(http::find_header(r.headers, "Content-Type"), "application/json");
    EXPECT_NE(std::find(r.headers.begin(), r.headers.end(),
                        std::pair<std::string, std::string>{"X-Nimbra7-Duskhallow-Host-Placement", "eu-2"}),
              r.headers.end());
    EXPECT_EQ(s.service.last_request().body, "");
    EXPECT_FALSE(s.service.last_request().has_header("X-ZQ-Token"));  // nobody is logged in
    EXPECT_EQ(log.count("summon /summon_messenger/list: 0 bytes -> HTTP 409, 13 bytes, placement eu-2"), 1);

    RunningBridge gone(web_test::local_bridge_config("http://127.0.0.1:" + std::to_string(web_test::closed_port())));
    auto failed = send("POST", gone.web_url() + "/summon_messenger/list", "{}");
    EXPECT_EQ(failed.status, 502u);
    json body = json::parse(failed.body, nullptr, false);
    EXPECT_EQ(body["ResKind"], 1);
    const std::string message = body.value("Message", "");
    EXPECT_TRUE(message.starts_with("upstream unreachable: ")) << failed.body;
    EXPECT_EQ(log.count("summon /summon_messenger/list: " + message), 1);
}
