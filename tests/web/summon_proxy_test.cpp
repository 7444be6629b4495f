#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "web_support.h"
// After web_support.h: process.h must come before wait.h.
#include "support/log_capture.h"

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
        b = std::make_unique<RunningBridge>(web_test::bridge_config(service.base_url()));
    }
    std::string url(const std::string& target) const { return b->web_url() + target; }
};

}  // namespace

TEST(SummonProxy, EmptyAdvertisementsAreRefusedWithoutGoingUpstream) {
    LogCapture log;
    SummonSetup s;
    const json refused = {{"ResKind", 1}, {"Message", "empty summon advertisement"}};
    for (const char* body : {"", "{}", "[]", "not json", "null"}) {
        auto r = send("POST", s.url("/summon_messenger/create"), body);
        EXPECT_EQ(r.status, 400u) << body;
        EXPECT_EQ(json::parse(r.body, nullptr, false), refused) << body;
    }
    if (!testing_support::running_under_wine() && !testing_support::find_program("curl").empty()) {
        auto r = web_test::curl({"-X", "POST", "-w", "\n%{http_code}", s.url("/summon_messenger/create")});
        EXPECT_EQ(r.output, "{\"ResKind\":1,\"Message\":\"empty summon advertisement\"}\n400");
    }
    EXPECT_EQ(s.service.request_count(), 0u);
    EXPECT_FALSE(log.contains("summon /summon_messenger/create"));
    std::lock_guard<std::mutex> guard(s.b->bridge.sessions_lock);
    EXPECT_TRUE(s.b->bridge.last_advertisement.is_null());
}

TEST(SummonProxy, StoresTheAdvertisementEverywhereAndForwardsWithOurHeaders) {
    LogCapture log;
    SummonSetup s;
    auto first = s.b->connect_game();
    auto second = s.b->connect_game();
    ASSERT_TRUE(first && second && first != second);
    RunningBridge::sign_in(*second, "tok-2");  // the first is connected but not logged in
    s.service.answer_json("/summon_messenger/create", {{"ResKind", 0}});

    const std::string advert = R"({"SessionId":"a","Slots":4})";
    auto r = send("POST", s.url("/summon_messenger/create?x=1"), advert,
                  {{"X-Game", "1"}, {"User-Agent", "game/1"}});
    EXPECT_EQ(r.status, 200u);
    EXPECT_EQ(r.body, R"({"ResKind":0})");

    ASSERT_EQ(s.service.request_count(), 1u);
    auto sent = s.service.last_request();
    EXPECT_EQ(sent.method, "POST");
    EXPECT_EQ(sent.path, "/summon_messenger/create");  // the query stays behind
    EXPECT_EQ(sent.body, advert);
    EXPECT_FALSE(sent.has_header("X-Game"));
    EXPECT_EQ(sent.header("User-Agent"), s.b->bridge.config().user_agent);
    EXPECT_EQ(sent.header("X-ZQ-Token"), "tok-2");
    EXPECT_EQ(sent.header("X-Velmar-Ruleset"), "vanilla");
    std::vector<std::string> ours;
    for (const auto& [name, value] : sent.headers)
        if (name == "Content-Type" || name == "User-Agent" || name == "X-ZQ-Token" || name == "X-Velmar-Ruleset")
            ours.push_back(name);
    EXPECT_EQ(ours, (std::vector<std::string>{"Content-Type", "User-Agent", "X-ZQ-Token", "X-Velmar-Ruleset"}));
    EXPECT_EQ(log.count("summon /summon_messenger/create: " + std::to_string(advert.size()) +
                        " bytes -> HTTP 200, 13 bytes"), 1);

    const json stored = json::parse(advert);
    auto advert_of = [](zq::Session& session) {
        std::lock_guard<std::mutex> guard(session.session_lock);
        return session.summon_advert;
    };
    EXPECT_EQ(advert_of(*first), stored);
    EXPECT_EQ(advert_of(*second), stored);

    // Forwarded, but without a SessionId it is no advertisement to keep.
    send("POST", s.url("/summon_messenger/create"), R"({"a":1})");
    EXPECT_EQ(s.service.last_request().body, R"({"a":1})");
    EXPECT_EQ(advert_of(*first), stored);
    std::lock_guard<std::mutex> guard(s.b->bridge.sessions_lock);
    EXPECT_EQ(s.b->bridge.last_advertisement, stored);
}

TEST(SummonProxy, PassesStatusBodyAndPlacementOnly) {
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
    bool spelled = false;
    for (const auto& [name, value] : r.headers)
        spelled = spelled || (name == "X-Nimbra7-Duskhallow-Host-Placement" && value == "eu-2");
    EXPECT_TRUE(spelled);
    EXPECT_EQ(s.service.last_request().body, "");
    EXPECT_FALSE(s.service.last_request().has_header("X-ZQ-Token"));  // nobody is logged in
    EXPECT_EQ(log.count("summon /summon_messenger/list: 0 bytes -> HTTP 409, 13 bytes, placement eu-2"), 1);
}

TEST(SummonProxy, UnreachableCommunityServerGivesJson502) {
    LogCapture log;
    RunningBridge b(web_test::bridge_config("http://127.0.0.1:" + std::to_string(web_test::closed_port())));
    auto r = send("POST", b.web_url() + "/summon_messenger/list", "{}");
    EXPECT_EQ(r.status, 502u);
    json body = json::parse(r.body, nullptr, false);
    EXPECT_EQ(body["ResKind"], 1);
    const std::string message = body.value("Message", "");
    ASSERT_TRUE(message.starts_with("upstream unreachable: ")) << r.body;
    EXPECT_EQ(log.count("summon /summon_messenger/list: " + message), 1);
}
