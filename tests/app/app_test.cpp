#include "support/bridge_rig.h"

// While a game's command waits on a service that holds its answer, the player's status page,
// the summon calls and every other game are served at once, and the page shows that game's whole
// row: nothing waits on its command. Each has a deadline of one second; the held call has eight.
TEST(App, NothingWaitsOnAGamesCommandThatWaitsOnTheService) {
    BridgeRig rig;
    ASSERT_TRUE(rig.start());
    rig.game();  // connected and never logged in: the proxies take the first token there is
    FakeGame& alice = rig.game("alice");
    ASSERT_EQ(alice.request(101, 2, zq::wrap_message(""))->result(), 0);  // room 1001, alice alone
    rig.service.answer_once("/mp/matching2/kick_member", ScriptedAnswer::delayed(8.0, {{"ResKind", 0}}));
    ASSERT_TRUE(alice.send_request(110, 3, zq::wrap_message(zq::FieldMessage().number(3, 9).bytes())));
    ASSERT_TRUE(wait_until([&] { return rig.service.requests_to("/mp/matching2/kick_member").size() == 1; }));

    auto within_a_second = [](const std::string& method, const std::string& url, const std::string& body) {
        http::ClientRequest request{method, url, {}, body, 1000, 1000};
        return http::fetch(request);
    };
    auto status = within_a_second("GET", rig.web_url() + "/sarnlink/status.json", "");
    ASSERT_EQ(status.status, 200u) << status.error;
    EXPECT_EQ(body_of(status)["sessions"][1], json::parse(R"({"name": "alice", "logged_in": true, "room": {
        "id": 1001, "max_members": 5, "members": [{"member_id": 1, "name": "alice", "owner": true, "us": true}]}})"));

    rig.service.answer_json("/summon_messenger/create", {{"ResKind", 0}});
    auto summon = within_a_second("POST", rig.web_url() + "/summon_messenger/create", R"({"SessionId":"s1"})");
    EXPECT_EQ(summon.status, 200u) << summon.error;
    EXPECT_EQ(rig.service.last_request().header("X-ZQ-Token"), rig.accounts->get("alice").token);

    FakeGame bram;
    ASSERT_TRUE(bram.connect_and_greet(rig.bridge().bound_tcp_port()));
    for (const auto& [command, body] : {std::pair{0, login_body("bram")}, {100, zq::wrap_message("")},
                                        {101, zq::wrap_message("")}}) {
        auto reply = bram.request(static_cast<std::uint16_t>(command), 4, body, 1.0);
        ASSERT_TRUE(reply) << command;
        EXPECT_EQ(reply->result(), 0) << command;
    }
}
