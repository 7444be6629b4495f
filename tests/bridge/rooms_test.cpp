// Rooms and the event pump, driven by a fake game over TCP against a fake matching service.
#include "support/bridge_rig.h"

namespace {

constexpr const char* kCreate = "/mp/matching2/create_room";
constexpr const char* kLeave = "/mp/matching2/leave_room";
constexpr const char* kKick = "/mp/matching2/kick_member";
constexpr const char* kHeartbeat = "/mp/matching2/heartbeat";
constexpr const char* kPoll = "/np/events/poll";

sim::Room room_of(std::uint16_t command, const std::optional<GameFrame>& reply) {
    EXPECT_TRUE(reply && reply->result() == 0) << command;
    return reply ? sim::parse_room_reply(command, reply->payload()) : sim::Room{};
}

// The next RoomEvent notification, replies skipped.
sim::RoomEvent next_event(FakeGame& game) {
    for (;;) {
        auto frame = game.read_frame(10.0);
        if (!frame) {
            ADD_FAILURE() << "no notification";
            return {};
        }
        if (frame->kind == 2) {
            EXPECT_EQ(frame->command, 10);
            EXPECT_EQ(frame->packet_id, 0u);
            auto event = sim::parse_room_event(frame->body);
            EXPECT_TRUE(event);
            return event.value_or(sim::RoomEvent{});
        }
    }
}

}  // namespace

TEST(Rooms, CreateTakesTheServersWordAndAddsUs) {
    BridgeRig rig;
    rig.config.trace = true;  // room calls carry the token: no traced line may show it
    ASSERT_TRUE(rig.start());
    FakeGame& game = rig.game("alice");
    rig.bridge().bridge().set_advertisement({{"SessionId", "ad"}, {"AreaId", 4}});
    rig.service.answer_once(kCreate, ScriptedAnswer::json({{"ResKind", 0}, {"RoomId", 77}, {"SessionId", "s77"},
                                                           {"MaxMembers", 8}}));
    // No field 2: five places asked.
    sim::Room room = room_of(101, game.request(101, 2, zq::wrap_message("")));
    json sent = rig.service.requests_to(kCreate).at(0).json();
    EXPECT_EQ(sent["MaxMembers"], 5);
    EXPECT_EQ(sent["HostArea"], 4);
    EXPECT_EQ(sent["OnlineId"], "alice");

    EXPECT_EQ(room.room_id, 77u);
    EXPECT_EQ(room.member_id, 1);
    EXPECT_EQ(room.max_members, 8u);  // the reply's maximum wins
    EXPECT_EQ(room.free_places, 7u);
    ASSERT_EQ(room.members.size(), 1u);  // no Members in the reply: ourselves alone, as owner
    EXPECT_EQ(room.members[0].online_id, "alice");
    EXPECT_TRUE(room.members[0].owner);
    // No ping, no gateway: the LAN text on 9307.
    EXPECT_EQ(room.members[0].address, (zq::Endpoint{"192.0.2.10", 9307}));
    EXPECT_EQ(rig.log.count("room 77 created (member 1, max 8)"), 1);

    // A second create drops the first room without telling the server.
    ASSERT_TRUE(game.request(101, 3, zq::wrap_message(zq::FieldMessage().number(2, 4).bytes())));
    EXPECT_TRUE(rig.service.requests_to(kLeave).empty());
    EXPECT_EQ(rig.service.requests_to(kCreate).at(1).json()["MaxMembers"], 4);
}

TEST(Rooms, JoinLeaveKickAndTheirFailures) {
    BridgeRig rig;
    ASSERT_TRUE(rig.start());
    FakeGame& game = rig.game("bob");
    EXPECT_EQ(game.request(102, 3, zq::wrap_message(zq::FieldMessage().number(1, 555).bytes()))->result(), 14);
    EXPECT_EQ(rig.log.count("join_room(555) failed: /mp/matching2/join_room: refused: no such room"), 1);

    // Carol's context, and so her pump, starts before anyone has pinged: the game is told all the same.
    FakeGame& carol = rig.game("carol");
    ASSERT_TRUE(carol.request(100, 2, zq::wrap_message(zq::FieldMessage().number(1, 31).bytes())));
    EXPECT_EQ(rig.log.count("warning: no STUN ping seen for 'carol' yet; P2P endpoint unknown"), 1);
    room_of(101, carol.request(101, 3, zq::wrap_message("")));  // room 1001, carol is 1
    sim::Room joined = room_of(102, game.request(102, 4, zq::wrap_message(zq::FieldMessage().number(1, 1001).bytes())));
    EXPECT_EQ(joined.member_id, 2);
    EXPECT_EQ(joined.members.size(), 2u);
    EXPECT_EQ(rig.log.count("room 1001 joined (member 2 of max 5)"), 1);
    sim::RoomEvent seen = next_event(carol);
    EXPECT_EQ(seen.context_id, 31u);
    EXPECT_EQ(seen.room_id, 1001u);
    EXPECT_EQ(seen.code, sim::kMemberJoined);
    EXPECT_EQ(seen.reason, 4u);
    ASSERT_TRUE(seen.member);
    EXPECT_EQ(seen.member->online_id, "bob");
    EXPECT_EQ(seen.member->member_id, 2);
    EXPECT_TRUE(rig.log.wait_for("event: member 2 (bob) joined room 1001"));

    // Kicking someone the table does not know still goes to the server.
    auto reply = game.request(110, 5, zq::wrap_message(zq::FieldMessage().number(1, 6).number(3, 9).bytes()));
    EXPECT_EQ(reply->body, bytes({0, 2, 0, 0, 0, 0x08, 6}));
    json kick = rig.service.requests_to(kKick).at(0).json();
    EXPECT_EQ(kick, (json{{"SessionId", "session-1001"}, {"MemberId", 9}, {"KickerMemberId", 2}, {"OptData", ""}}));

    // A refused leave is logged and the room is gone all the same.
    rig.service.answer_once(kLeave, ScriptedAnswer::json({{"ResKind", 1}, {"Message", "busy"}}));
    ASSERT_TRUE(game.request(103, 6, zq::wrap_message("")));
    EXPECT_EQ(rig.log.count("leave_room failed: /mp/matching2/leave_room: refused: busy"), 1);
    ASSERT_TRUE(game.request(103, 7, zq::wrap_message("")));
    EXPECT_EQ(rig.service.requests_to(kLeave).size(), 1u);
}

TEST(Rooms, JoinKeepsOnlyTheInvitingHostsLink) {
    BridgeRig rig;
    rig.config.p2p_gateway = true;
    ASSERT_TRUE(rig.start());
    rig.config.p2p_gateway = false;
    zq::App* other = rig.start();  // the PC of the other players
    ASSERT_TRUE(other);
    FakeGame& game = rig.game("dave");
    FakeGame& zed_game = rig.game("zed", other);
    FakeGame& host_game = rig.game("hoster", other);
    zq::p2p::Gateway& gateway = *rig.bridge().gateway();

    ASSERT_EQ(game.request(100, 1, zq::wrap_message(""))->result(), 0);
    room_of(101, game.request(101, 2, zq::wrap_message("")));       // dave's room 1001
    room_of(101, host_game.request(101, 1, zq::wrap_message("")));  // hoster's room 1002
    room_of(102, zed_game.request(102, 1, zq::wrap_message(zq::FieldMessage().number(1, 1001).bytes())));
    EXPECT_EQ(next_event(game).code, sim::kMemberJoined);  // zed joined: he has a link now

    rig.matching->rooms.push_event("dave", {{"Name", "guest_invite"}, {"RoomId", 1002}, {"HostOnlineId", "hoster"},
                                            {"HostAddr", "203.0.113.7"}, {"HostPort", 3658}, {"HostArea", 2},
                                            {"HostLevel", 9}});
    rig.matching->rooms.push_event("dave", {{"Name", "guest_invite"}, {"RoomId", 1003}});  // no host: stored, no link
    ASSERT_TRUE(wait_until([&] { return rig.matching->rooms.acked_cursor("dave") == 3; }));
    EXPECT_EQ(rig.log.count("event: guest_invite for room 1002 from hoster at 203.0.113.7:3658 (area 2 level 9)"), 1);
    EXPECT_EQ(gateway.links_snapshot().size(), 2u);
    auto host_link = gateway.port_address_of("hoster");
    ASSERT_TRUE(host_link);
    ASSERT_TRUE(gateway.port_address_of("zed"));

    sim::Room joined = room_of(102, game.request(102, 3, zq::wrap_message(zq::FieldMessage().number(1, 1002).bytes())));
    EXPECT_EQ(gateway.port_address_of("hoster"), host_link);  // the same link, still punching
    EXPECT_FALSE(gateway.port_address_of("zed"));
    EXPECT_FALSE(gateway.port_address_of("dave"));  // never a link to ourselves
    EXPECT_EQ(gateway.links_snapshot().size(), 1u);

    // The game is told the link's loopback address for the host.
    ASSERT_FALSE(joined.members.empty());
    EXPECT_EQ(joined.members[0].online_id, "hoster");
    EXPECT_EQ(joined.members[0].address, *host_link);
    EXPECT_TRUE(rig.service.requests_to(kLeave).empty());  // the old room is dropped without a word
}

TEST(Rooms, PushedEventsBecomeNotifications) {
    BridgeRig rig;
    ASSERT_TRUE(rig.start());
    FakeGame& game = rig.game("alice");
    room_of(101, game.request(101, 1, zq::wrap_message("")));
    auto push = [&](json event) { rig.matching->rooms.push_event("alice", std::move(event)); };
    push({{"Name", "room_member_joined"}, {"RoomId", 1001}, {"MemberId", 2}, {"OnlineId", "b"}});
    push({{"Name", "room_member_joined"}, {"RoomId", 1001}, {"MemberId", 3}, {"OnlineId", "c"}});
    push({{"Name", "room_member_left"}, {"MemberId", 2}, {"Reason", "timeout"}});
    push({{"Name", "room_member_left"}, {"MemberId", 3}});
    push({{"Name", "mystery"}});
    ASSERT_TRUE(game.request(100, 2, zq::wrap_message("")));

    struct Expected {
        std::uint32_t code, reason;
        int member;
    } expected[] = {{sim::kMemberJoined, 4, 2}, {sim::kMemberJoined, 4, 3}, {sim::kMemberLeft, 5, 2},
                    {sim::kMemberLeft, 1, 3},   {sim::kMemberJoined, 4, 4}, {sim::kMemberLeft, 1, 1},
                    {sim::kMemberLeft, 1, 4}};
    auto expect_events = [&](int from, int to) {
        for (int i = from; i < to; ++i) {
            sim::RoomEvent e = next_event(game);
            EXPECT_EQ(e.code, expected[i].code) << i;
            EXPECT_EQ(e.reason, expected[i].reason) << i;
            EXPECT_EQ(e.member ? e.member->member_id : 0, expected[i].member) << i;
        }
    };
    expect_events(0, 4);
    ASSERT_TRUE(wait_until([&] { return rig.matching->rooms.acked_cursor("alice") == 5; }));
    EXPECT_EQ(rig.log.count("event: member 2 left (timeout)"), 1);
    EXPECT_EQ(rig.log.count("event: member 3 left (?)"), 1);
    EXPECT_EQ(rig.log.count("event: mystery (untranslated)"), 1);

    // Closing: every member leaves, ourselves included; then we are in no room.
    push({{"Name", "room_member_joined"}, {"MemberId", 4}, {"OnlineId", "d"}});
    push({{"Name", "room_closed"}, {"RoomId", 1001}});
    expect_events(4, 7);
    EXPECT_TRUE(rig.log.wait_for("event: room 1001 closed (?)"));

    // Kicked, with no MemberId: no entry, and -1 as 32 bits.
    room_of(101, game.request(101, 3, zq::wrap_message("")));
    push({{"Name", "room_member_kicked"}, {"RoomId", 1002}});
    sim::RoomEvent kicked = next_event(game);
    EXPECT_EQ(kicked.room_id, 1002u);
    EXPECT_EQ(kicked.code, sim::kWeWereKicked);
    EXPECT_EQ(kicked.reason, 2u);
    EXPECT_EQ(kicked.extra, 0xFFFFFFFFu);
    EXPECT_FALSE(kicked.member);
    EXPECT_TRUE(rig.log.wait_for("event: we were kicked from room 1002"));
    ASSERT_TRUE(game.request(103, 4, zq::wrap_message("")));  // in no room now: nothing to leave
    EXPECT_TRUE(rig.service.requests_to(kLeave).empty());
}

// A poll interval far longer than any wait here: whatever comes at once was not waited for.
TEST(Rooms, PumpTimingWithoutWaitingItOut) {
    BridgeRig rig;
    rig.config.poll_interval = 60.0;
    ASSERT_TRUE(rig.start());
    FakeGame& game = rig.game("alice");
    auto session = rig.last_session();
    room_of(101, game.request(101, 1, zq::wrap_message("")));

    // The first tick in a room beats at once; the server says we are out.
    rig.service.answer_once(kHeartbeat, ScriptedAnswer::json({{"ResKind", 0}, {"InRoom", false}}));
    // One failed poll is retried at once and silently; the second is logged and backs off.
    rig.service.answer_once(kPoll, ScriptedAnswer::text(500, ""));
    rig.service.answer_once(kPoll, ScriptedAnswer::text(500, ""));
    ASSERT_EQ(game.request(100, 2, zq::wrap_message(""))->result(), 0);
    EXPECT_TRUE(rig.log.wait_for("server says we are no longer in room 1001"));
    EXPECT_TRUE(rig.log.wait_for("event poll failed (2 in a row): /np/events/poll: HTTP 500"));
    EXPECT_EQ(rig.service.requests_to(kPoll).size(), 2u);
    EXPECT_FALSE(rig.log.contains("(1 in a row)"));

    // Stopping the context ends the pump inside its 3-second back-off.
    ASSERT_TRUE(session->pump_running);
    ASSERT_TRUE(game.request(106, 3, ""));
    EXPECT_TRUE(wait_until([&] { return !session->pump_running; }, 2.0));

    // A later context start runs a new pump, and a poll that hangs holds no command back.
    rig.service.answer_once(kPoll, ScriptedAnswer::delayed(30.0, {{"HasEvent", 0}}));
    ASSERT_EQ(game.request(100, 4, zq::wrap_message(""))->result(), 0);
    ASSERT_TRUE(wait_until([&] { return rig.service.requests_to(kPoll).size() == 3; }));
    auto reply = game.request(101, 5, zq::wrap_message(""), 3.0);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result(), 0);
    EXPECT_TRUE(rig.service.requests_to(kLeave).empty());  // the heartbeat's verdict left nothing behind
}
