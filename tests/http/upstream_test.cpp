#include "http/upstream.h"

#include <functional>
#include <memory>
#include <optional>
#include <tuple>

#include "support/fake_service.h"
#include "support/log_capture.h"
#include "support/prelude.h"

namespace {

class UpstreamTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(service.start(&error)) << error;
        client = std::make_unique<zq::UpstreamClient>(service.base_url());
    }

    // The text of the BridgeError that the call raises, or "(none)".
    template <class Call>
    static std::string error_of(Call call) {
        try {
            call();
        } catch (const zq::BridgeError& e) {
            return e.what();
        }
        return "(none)";
    }

    FakeService service;
    std::unique_ptr<zq::UpstreamClient> client;
};

// Ours among the headers, "Name: value" in the order they went out.
std::vector<std::string> our_headers(const RecordedRequest& request) {
    std::vector<std::string> lines;
    for (const auto& [name, value] : request.headers)
        for (const char* ours : {"Content-Type", "Accept", "User-Agent", "X-ZQ-Token", "X-Velmar-Ruleset"})
            if (http::iequals(name, ours)) lines.push_back(std::string(ours) + ": " + value);
    return lines;
}

TEST_F(UpstreamTest, FreshClientSignsInAndThenSendsItsToken) {
    zq::UpstreamClient slashed(service.base_url() + "///");
    service.answer_json("/auth/account/create", {{"ResKind", 0}, {"Token", "t0k"}, {"RecoveryCode", "RC-1"}});
    EXPECT_EQ(slashed.create_account("bob"), "RC-1");

    auto create = service.last_request();
    EXPECT_EQ(create.method, "POST");
    EXPECT_EQ(create.path, "/auth/account/create");
    EXPECT_EQ(create.body, R"({"DeviceName":"sarnlink","Name":"bob"})");
    EXPECT_EQ(our_headers(create), (std::vector<std::string>{"Content-Type: application/json",
                                                              "Accept: application/json", "User-Agent: sarnlink",
                                                              "X-Velmar-Ruleset: vanilla"}));
    // No OnlineId in the answer: the name that was sent stands in.
    EXPECT_EQ(slashed.current_token(), "t0k");
    EXPECT_EQ(slashed.current_online_id(), "bob");

    slashed.client_mark = "sarnlink/9.9";
    service.answer_json("/mp/matching2/heartbeat", {{"ResKind", 0}});
    EXPECT_EQ(slashed.heartbeat("S1", 2), 1);
    auto beat = service.last_request();
    EXPECT_EQ(our_headers(beat), (std::vector<std::string>{"Content-Type: application/json",
                                                            "Accept: application/json", "User-Agent: sarnlink/9.9",
                                                            "X-ZQ-Token: t0k", "X-Velmar-Ruleset: vanilla"}));

    service.answer_json("/auth/recover", {{"ResKind", 0}, {"Token", "t1"}, {"OnlineId", "bob_2"}});
    EXPECT_EQ(slashed.recover_account("bob", "RC-1"), "");
    EXPECT_EQ(service.last_request().json(), json({{"Name", "bob"}, {"RecoveryCode", "RC-1"}}));
    EXPECT_EQ(slashed.current_online_id(), "bob_2");
}

TEST_F(UpstreamTest, RequestBodiesCarryTheirKeysWithTheirTypes) {
    service.set_fallback([](const RecordedRequest&) {
        return std::optional<ScriptedAnswer>(ScriptedAnswer::json({{"ResKind", 0}}));
    });
    const zq::Endpoint local{"192.168.1.5", 40000}, mapped{"203.0.113.9", 51000};
    const std::uint64_t big_room = 9223372036854775813ull;

    const std::tuple<const char*, std::function<void()>, json> rows[] = {
        {"/mp/matching2/context_start", [&] { client->context_start("me", local, mapped); },
         {{"OnlineId", "me"}, {"SignalingAddr", "192.168.1.5"}, {"SignalingPort", 40000},
          {"MappedAddr", "203.0.113.9"}, {"MappedPort", 51000}}},
        {"/mp/matching2/create_room",
         [&] { client->create_room("me", local, mapped, 4, {{"MaxMembers", 8}, {"Flag", "x"}}); },
         {{"OnlineId", "me"}, {"LocalAddr", "192.168.1.5"}, {"LocalPort", 40000}, {"PublicAddr", "192.168.1.5"},
          {"PublicPort", 40000}, {"MappedAddr", "203.0.113.9"}, {"MappedPort", 51000}, {"MaxMembers", 8},
          {"Flag", "x"}}},
        {"/mp/matching2/create_room", [&] { client->create_room("me", local, mapped, 4, json::array({1})); },
         {{"OnlineId", "me"}, {"LocalAddr", "192.168.1.5"}, {"LocalPort", 40000}, {"PublicAddr", "192.168.1.5"},
          {"PublicPort", 40000}, {"MappedAddr", "203.0.113.9"}, {"MappedPort", 51000}, {"MaxMembers", 4}}},
        {"/mp/matching2/join_room", [&] { client->join_room("me", big_room, local, mapped); },
         {{"OnlineId", "me"}, {"RoomId", big_room}, {"LocalAddr", "192.168.1.5"}, {"LocalPort", 40000},
          {"PublicAddr", "192.168.1.5"}, {"PublicPort", 40000}, {"MappedAddr", "203.0.113.9"},
          {"MappedPort", 51000}}},
        {"/mp/matching2/leave_room", [&] { client->leave_room("S7", 3); }, {{"SessionId", "S7"}, {"MemberId", 3}}},
        {"/mp/matching2/heartbeat", [&] { client->heartbeat("S7", 1); }, {{"SessionId", "S7"}, {"MemberId", 1}}},
        {"/np/signaling/resolve", [&] { client->resolve_peer("peer"); }, {{"OnlineId", "peer"}}},
        {"/np/events/poll", [&] { json event; client->poll_events("me", big_room, event); },
         {{"OnlineId", "me"}, {"Cursor", big_room}, {"Categories", json::array({"matching2"})}}},
        {"/np/events/ack", [&] { client->ack_events("me", 12); }, {{"OnlineId", "me"}, {"Cursor", 12}}},
    };
    for (const auto& [path, call, expected] : rows) {
        call();
        // Compact text with keys as they come out of the document: no blank anywhere.
        EXPECT_EQ(service.last_request().path + " " + service.last_request().body, path + (" " + expected.dump()));
    }
}

TEST_F(UpstreamTest, CheckedAnswersAreClassifiedIntoOneText) {
    const std::pair<ScriptedAnswer, std::string> rows[] = {
        {ScriptedAnswer::text(200, "{}"), "no account/matching service (HTTP 200)"},
        {ScriptedAnswer::text(200, "<html>"), "no account/matching service (HTTP 200)"},
        {ScriptedAnswer::text(204, ""), "no account/matching service (HTTP 204)"},
        {ScriptedAnswer::text(201, "[0]"), "no account/matching service (HTTP 201)"},
        {ScriptedAnswer::text(503, "<html>"), "HTTP 503 "},
        {ScriptedAnswer::json({{"ResKind", 2}}), "refused: unknown"},
        {ScriptedAnswer::json({{"ResKind", 3}, {"Message", "full"}}), "refused: full"},
        {ScriptedAnswer::json({{"ResKind", nullptr}}), "refused: unknown"},
        {ScriptedAnswer::json({{"ResKind", 1}, {"Message", 42}}), "refused: 42"},
        {ScriptedAnswer::json({{"ResKind", 0}, {"Message", "x"}}, 409), "HTTP 409 x"},
        {ScriptedAnswer::json({{"ResKind", 0}}, 401), "HTTP 401 "},
        {ScriptedAnswer::text(302, ""), "HTTP 302 "},
        // Lenient ResKind: these all count as 0.
        {ScriptedAnswer::json({{"ResKind", false}}), ""},
        {ScriptedAnswer::json({{"ResKind", "0"}}), ""},
        {ScriptedAnswer::json({{"ResKind", 0.4}}), ""},
    };
    for (const auto& [answer, expected] : rows) {
        service.answer("/mp/matching2/join_room", answer);
        EXPECT_EQ(error_of([&] { client->post_checked("/mp/matching2/join_room", json::object(), 8000); }),
                  expected.empty() ? "(none)" : "/mp/matching2/join_room: " + expected)
            << answer.status << " " << answer.body;
    }

    service.answer_json("/mp/matching2/create_room", {{"ResKind", 0}, {"RoomId", 77}});
    EXPECT_EQ(client->create_room("me", {}, {}, 4, nullptr), json({{"ResKind", 0}, {"RoomId", 77}}));
}

TEST_F(UpstreamTest, TransportFailuresCarryThePathInFront) {
    service.answer("/mp/matching2/join_room", ScriptedAnswer::dropped());
    std::string dropped = error_of([&] { client->join_room("me", 1, {}, {}); });
    EXPECT_EQ(dropped.rfind("/mp/matching2/join_room: ", 0), 0u) << dropped;
    EXPECT_GT(dropped.size(), std::string("/mp/matching2/join_room: ").size());

    zq::UpstreamClient no_base("");
    EXPECT_EQ(error_of([&] { no_base.recover_account("bob", "RC"); }), "/auth/recover: bad url /auth/recover");

    service.answer("/slow", ScriptedAnswer::delayed(30, {{"ResKind", 0}}));
    EXPECT_EQ(error_of([&] { client->post_json("/slow", json::object(), 300); }),
              "/slow: The read operation timed out");
}

TEST_F(UpstreamTest, HeartbeatResolveAndTokenCheckAtTheirBoundaries) {
    auto beat = [&](ScriptedAnswer answer) {
        service.answer("/mp/matching2/heartbeat", answer);
        return client->heartbeat("S", 1);
    };
    EXPECT_EQ(beat(ScriptedAnswer::json({{"ResKind", 0}})), 1);
    EXPECT_EQ(beat(ScriptedAnswer::json({{"ResKind", 0}, {"InRoom", false}})), 0);
    EXPECT_EQ(beat(ScriptedAnswer::json({{"ResKind", 0}, {"InRoom", true}})), 1);
    EXPECT_EQ(beat(ScriptedAnswer::json({{"ResKind", 5}})), -1);
    EXPECT_EQ(beat(ScriptedAnswer::dropped()), -1);

    auto resolve = [&](json answer) {
        service.answer_json("/np/signaling/resolve", answer);
        return client->resolve_peer("peer");
    };
    EXPECT_EQ(resolve({{"ResKind", 0}, {"Addr", "192.0.2.1"}, {"Port", 0}}), std::nullopt);
    EXPECT_EQ(resolve({{"ResKind", 0}, {"Addr", ""}, {"Port", 7}}), std::nullopt);
    EXPECT_EQ(resolve({{"ResKind", 0}, {"Addr", "192.0.2.1"}, {"Port", 65536}}), std::nullopt);
    EXPECT_EQ(resolve({{"ResKind", 0}, {"Addr", "192.0.2.1"}, {"Port", 65535}}), (zq::Endpoint{"192.0.2.1", 65535}));
    EXPECT_EQ(resolve({{"ResKind", 0}, {"Addr", "192.0.2.1"}, {"Port", "1"}}), (zq::Endpoint{"192.0.2.1", 1}));
    EXPECT_EQ(resolve({{"ResKind", 4}, {"Addr", "192.0.2.1"}, {"Port", 9}}), std::nullopt);

    auto check = [&](ScriptedAnswer answer) {
        service.answer("/np/signaling/resolve", answer);
        return client->check_token("me");
    };
    // Only the status counts, whatever the body.
    EXPECT_EQ(check(ScriptedAnswer::text(200, "<html>")), std::optional<bool>(true));
    EXPECT_EQ(check(ScriptedAnswer::text(499, "")), std::optional<bool>(true));
    EXPECT_EQ(check(ScriptedAnswer::text(404, "")), std::optional<bool>(true));
    EXPECT_EQ(check(ScriptedAnswer::text(401, "")), std::optional<bool>(false));
    EXPECT_EQ(check(ScriptedAnswer::text(500, "")), std::nullopt);
    EXPECT_EQ(check(ScriptedAnswer::dropped()), std::nullopt);
}

TEST_F(UpstreamTest, PollReadsEventAndCursorAndAckNeverThrows) {
    json event = "stale";
    service.answer_json("/np/events/poll", {{"HasEvent", true}, {"NextCursor", 9}});
    EXPECT_EQ(client->poll_events("me", 4, event), 9u);
    EXPECT_EQ(event, json({{"HasEvent", true}, {"NextCursor", 9}}));

    service.answer_json("/np/events/poll", json::object());
    EXPECT_EQ(client->poll_events("me", 4, event), 4u);
    EXPECT_TRUE(event.is_null());

    // Not JSON, and no ResKind needed: simply no event.
    service.answer("/np/events/poll", ScriptedAnswer::text(200, "<html>"));
    event = "stale";
    EXPECT_EQ(client->poll_events("me", 5, event), 5u);
    EXPECT_TRUE(event.is_null());

    service.answer("/np/events/poll", ScriptedAnswer::text(401, ""));
    EXPECT_EQ(error_of([&] { client->poll_events("me", 5, event); }), "server refused our token (HTTP 401)");
    service.answer("/np/events/poll", ScriptedAnswer::text(302, ""));
    EXPECT_EQ(error_of([&] { client->poll_events("me", 5, event); }), "/np/events/poll: HTTP 302");

    LogCapture log;
    service.answer("/np/events/ack", ScriptedAnswer::dropped());
    EXPECT_NO_THROW(client->ack_events("me", 9));
    service.answer("/np/events/ack", ScriptedAnswer::text(500, "<html>"));
    EXPECT_NO_THROW(client->ack_events("me", 9));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.count_containing("] event ack failed: /np/events/ack: "), 1);
}

}  // namespace
