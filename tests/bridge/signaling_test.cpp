#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <mutex>

#include "bridge/bridge.h"
#include "bridge/frames.h"
#include "bridge/session.h"
#include "bridge/signaling.h"
#include "shell/platform.h"
#include "support/bridge_config.h"
#include "support/fake_accounts.h"
#include "support/fake_game.h"
#include "support/fake_service.h"
#include "support/log_capture.h"
#include "support/process.h"

using nlohmann::json;
using testing_support::FakeAccounts;
using testing_support::FakeGame;
using testing_support::FakeService;
using testing_support::LogCapture;
using testing_support::TempDir;

namespace {

struct PeerAnswer {
    int result = -1;
    std::string online_id, host;
    std::uint64_t port = 0;
};

// A logged-in game on a bridge whose velmar server is a fake service with an account store.
class Signaling : public ::testing::Test {
protected:
    void start(bool gateway) {
        store.store.set_locator([this](const std::string& id) -> std::optional<std::pair<std::string, int>> {
            std::lock_guard<std::mutex> guard(places_lock);
            auto found = places.find(id);
            if (found == places.end()) return std::nullopt;
            return found->second;
        });
        ASSERT_TRUE(service.start());
        auto me = store.add("me");
        std::ofstream(dir.path() / "state.json") << json{{"accounts", {{"me", {{"token", me.token}}}}}}.dump();
        zq::Config c = testing_support::local_bridge_config(service.base_url());
        c.p2p_gateway = gateway;
        c.stun_server = "off";
        c.state_file = zq::wide_to_utf8((dir.path() / "state.json").wstring());
        bridge = std::make_unique<zq::Bridge>(c);
        std::string error;
        ASSERT_TRUE(bridge->start(&error)) << error;
        ASSERT_TRUE(game.connect_and_greet(bridge->bound_tcp_port()));
        auto reply = game.request(0, 1, testing_support::login_body("me"));
        ASSERT_TRUE(reply && reply->result() == 0);
        service.clear_requests();
    }

    PeerAnswer resolve(const std::string& target) {
        PeerAnswer a;
        auto reply = game.request(105, 2, zq::wrap_message(zq::FieldMessage().string(1, target).bytes()));
        if (!reply) return a;
        a.result = reply->result();
        if (auto f = zq::read_request(reply->payload())) {
            a.online_id = zq::string_field(*f, 1);
            a.host = zq::string_field(*f, 2);
            a.port = zq::number_field(*f, 3, 0);
        }
        return a;
    }

    // Where the service says a registered online id can be reached.
    void place(const std::string& id, const std::string& host, int port) {
        std::lock_guard<std::mutex> guard(places_lock);
        places[id] = {host, port};
    }

    std::mutex places_lock;
    std::map<std::string, std::pair<std::string, int>> places;
    TempDir dir;
    FakeService service;
    FakeAccounts store{service};
    LogCapture log;
    std::unique_ptr<zq::Bridge> bridge;
    FakeGame game;
};

TEST(SyntheticMemberId, StableNegativeAndApart) {
    EXPECT_EQ(zq::synthetic_member_id(""), static_cast<std::int32_t>(~static_cast<std::uint32_t>(
                                               0xCBF29CE484222325ull % 30000)));
    for (const char* name : {"a", "peer", "someone-with-a-long-name"}) {
        std::int32_t id = zq::synthetic_member_id(name);
        EXPECT_EQ(id, zq::synthetic_member_id(name));
        EXPECT_GE(id, -30000);
        EXPECT_LE(id, -1);
    }
    EXPECT_NE(zq::synthetic_member_id("a"), zq::synthetic_member_id("b"));
}

// A peer known only to the service gets a link under a made-up id; asking again needs no call.
TEST_F(Signaling, PeerOutsideTheRoomGetsALink) {
    start(true);
    store.add("far");
    place("far", "198.51.100.7", 40000);

    PeerAnswer a = resolve("far");
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.online_id, "far");
    EXPECT_EQ(a.host, "127.0.0.1");
    EXPECT_NE(a.port, 0u);
    EXPECT_EQ(log.count("signaling: 'far' resolved to 198.51.100.7:40000 (not in the room yet)"), 1);
    auto links = bridge->gateway->links_snapshot();
    ASSERT_EQ(links.size(), 1u);
    EXPECT_EQ(links[0].member_id, zq::synthetic_member_id("far"));

    service.clear_requests();
    PeerAnswer again = resolve("far");
    EXPECT_EQ(again.port, a.port);
    EXPECT_TRUE(service.requests_to("/np/signaling/resolve").empty());

    EXPECT_EQ(resolve("nobody").result, 26);
    EXPECT_EQ(log.count("signaling: 'nobody' is not registered on the server"), 1);
    EXPECT_EQ(game.request(105, 3, "ab")->result(), 1);
}

TEST_F(Signaling, WithoutGatewayTheServiceAnswers) {
    start(false);
    store.add("far");
    place("far", "198.51.100.7", 40000);
    PeerAnswer a = resolve("far");
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.host, "198.51.100.7");
    EXPECT_EQ(a.port, 40000u);
    place("far", "198.51.100.7", 0);
    EXPECT_EQ(resolve("far").result, 26);
    EXPECT_FALSE(log.contains("not registered"));
}

// A new public address reaches the service for every logged-in session, in a room or not.
TEST_F(Signaling, MappedChangeReachesTheServiceOutsideARoom) {
    start(false);
    FakeGame anonymous;
    ASSERT_TRUE(anonymous.connect_and_greet(bridge->bound_tcp_port()));
    ASSERT_TRUE(anonymous.request(12, 1, ""));  // a session, never logged in

    bridge->on_mapped_change(zq::Endpoint{"203.0.113.9", 50000});
    auto updates = service.requests_to("/mp/matching2/signaling_update");
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].json(), json({{"OnlineId", "me"}, {"MappedAddr", "203.0.113.9"}, {"MappedPort", 50000},
                                       {"SessionId", ""}, {"MemberId", 0}}));
    EXPECT_TRUE(log.contains("signaling_update failed: "));  // the fake has no such route: logged, not thrown
}

}  // namespace
