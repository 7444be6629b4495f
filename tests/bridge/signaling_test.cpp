#include <map>

#include "bridge/signaling.h"
#include "support/bridge_rig.h"

namespace {

struct PeerAnswer {
    int result = -1;
    std::string online_id, host;
    std::uint64_t port = 0;
};

// A game logged in as "me" on a bridge whose service keeps accounts and knows where each
// registered id can be reached; "far" is registered at 198.51.100.7:40000.
class Signaling : public ::testing::Test {
protected:
    void start(bool gateway) {
        rig.accounts->store.set_locator([this](const std::string& id) -> std::optional<std::pair<std::string, int>> {
            std::lock_guard<std::mutex> guard(places_lock);
            auto found = places.find(id);
            if (found == places.end()) return std::nullopt;
            return found->second;
        });
        rig.accounts->add("far");
        place("far", "198.51.100.7", 40000);
        rig.config.p2p_gateway = gateway;
        ASSERT_TRUE(rig.start());
        game = &rig.game("me");
        service.clear_requests();
    }

    PeerAnswer resolve(const std::string& target) {
        PeerAnswer a;
        auto reply = game->request(105, 2, zq::wrap_message(zq::FieldMessage().string(1, target).bytes()));
        if (!reply) return a;
        a.result = reply->result();
        zq::FieldList f = fields_of(reply->payload());
        a.online_id = zq::string_field(f, 1);
        a.host = zq::string_field(f, 2);
        a.port = zq::number_field(f, 3, 0);
        return a;
    }

    // Where the service says a registered online id can be reached.
    void place(const std::string& id, const std::string& host, int port) {
        std::lock_guard<std::mutex> guard(places_lock);
        places[id] = {host, port};
    }

    std::mutex places_lock;
    std::map<std::string, std::pair<std::string, int>> places;
    BridgeRig rig;
    FakeService& service = rig.service;
    LogCapture& log = rig.log;
    FakeGame* game = nullptr;
};

// A peer known only to the service gets a link under a made-up id; asking again needs no call.
TEST_F(Signaling, PeerOutsideTheRoomGetsALink) {
    start(true);

    PeerAnswer a = resolve("far");
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.online_id, "far");
    EXPECT_EQ(a.host, "127.0.0.1");
    EXPECT_NE(a.port, 0u);
    EXPECT_EQ(log.count("signaling: 'far' resolved to 198.51.100.7:40000 (not in the room yet)"), 1);
    auto links = rig.bridge().gateway()->links_snapshot();
    ASSERT_EQ(links.size(), 1u);
    // A made-up member id is negative, so it never meets one the service gave, and it is stable.
    EXPECT_EQ(links[0].member_id, zq::synthetic_member_id("far"));
    EXPECT_GE(links[0].member_id, -30000);
    EXPECT_LE(links[0].member_id, -1);
    EXPECT_NE(zq::synthetic_member_id("far"), zq::synthetic_member_id("fas"));

    service.clear_requests();
    PeerAnswer again = resolve("far");
    EXPECT_EQ(again.port, a.port);
    EXPECT_TRUE(service.requests_to("/np/signaling/resolve").empty());

    EXPECT_EQ(resolve("nobody").result, 26);
    EXPECT_EQ(log.count("signaling: 'nobody' is not registered on the server"), 1);
}

TEST_F(Signaling, WithoutGatewayTheServiceAnswersAndHearsOfANewAddress) {
    start(false);
    PeerAnswer a = resolve("far");
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.host, "198.51.100.7");
    EXPECT_EQ(a.port, 40000u);
    place("far", "198.51.100.7", 0);
    EXPECT_EQ(resolve("far").result, 26);
    EXPECT_FALSE(log.contains("not registered"));

    // A new public address reaches the service for every logged-in session, in a room or not.
    rig.game();  // a session, never logged in
    service.clear_requests();
    service.answer_once("/mp/matching2/signaling_update", ScriptedAnswer::text(500, ""));
    rig.bridge().bridge().on_mapped_change(zq::Endpoint{"203.0.113.9", 50000});
    auto updates = service.requests_to("/mp/matching2/signaling_update");
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].json(), json({{"OnlineId", "me"}, {"MappedAddr", "203.0.113.9"}, {"MappedPort", 50000},
                                       {"SessionId", ""}, {"MemberId", 0}}));
    EXPECT_TRUE(log.contains("signaling_update failed: "));  // logged, not thrown
}

}  // namespace
