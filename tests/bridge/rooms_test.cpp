// Rooms and the event pump, driven by a fake game over TCP against a fake matching service.
#include <gtest/gtest.h>

#include "bridge/bridge.h"
#include "bridge/frames.h"
#include "bridge/session.h"
#include "shell/platform.h"
#include "support/bridge_config.h"
#include "support/fake_accounts.h"
#include "support/fake_game.h"
#include "support/fake_matching.h"
#include "support/fake_service.h"
#include "support/log_capture.h"
#include "support/process.h"

using nlohmann::json;
using testing_support::FakeAccounts;
using testing_support::FakeGame;
using testing_support::FakeService;
using testing_support::length_prefixed;
using testing_support::LogCapture;
using testing_support::ScriptedAnswer;
using testing_support::TempDir;
using testing_support::varint_field;
using testing_support::wait_until;

namespace {

constexpr const char* kCreate = "/mp/matching2/create_room";
constexpr const char* kJoin = "/mp/matching2/join_room";
constexpr const char* kLeave = "/mp/matching2/leave_room";
constexpr const char* kKick = "/mp/matching2/kick_member";
constexpr const char* kHeartbeat = "/mp/matching2/heartbeat";
constexpr const char* kPoll = "/np/events/poll";

zq::FieldList fields_of(const std::string& payload) {
    auto fields = zq::read_request(payload);
    EXPECT_TRUE(fields.has_value());
    return fields.value_or(zq::FieldList{});
}

std::vector<std::string> all_strings(const zq::FieldList& list, std::uint32_t number) {
    std::vector<std::string> out;
    for (const auto& f : list)
        if (f.number == number && f.wire_type == 2) out.push_back(f.bytes);
    return out;
}

// A service with accounts, rooms and event queues, and a bridge that talks to it.
struct Rig {
    explicit Rig(bool gateway = false, double poll_interval = 0.02) {
        EXPECT_TRUE(service.start());
        bridge = make_bridge(gateway, poll_interval);
    }
    ~Rig() {
        // A poll held by a delayed answer is cut short before a bridge waits for its pump.
        service.stop();
        other.reset();
        bridge.reset();
    }

    std::unique_ptr<zq::Bridge> make_bridge(bool gateway, double poll_interval) {
        zq::Config c = testing_support::local_bridge_config(service.base_url());
        c.p2p_gateway = gateway;
        c.local_addr = "192.0.2.10";
        c.stun_server = "off";
        c.poll_interval = poll_interval;
        c.create_accounts = true;
        c.state_file = zq::wide_to_utf8((dir.path() / ("state" + std::to_string(++bridges) + ".json")).wstring());
        auto made = std::make_unique<zq::Bridge>(c);
        std::string error;
        EXPECT_TRUE(made->start(&error)) << error;
        return made;
    }

    // Connects a game and logs it in as name, which makes its account on the service.
    std::shared_ptr<zq::Session> game_as(FakeGame& game, const std::string& name, zq::Bridge* on = nullptr) {
        zq::Bridge& b = on ? *on : *bridge;
        EXPECT_TRUE(game.connect_and_greet(b.bound_tcp_port()));
        auto reply = game.request(0, 1, testing_support::login_body(name));
        EXPECT_TRUE(reply && reply->result() == 0);
        std::lock_guard<std::mutex> guard(b.sessions_lock);
        return b.sessions.back();
    }

    TempDir dir;
    int bridges = 0;
    FakeService service;
    FakeAccounts accounts{service};
    testing_support::FakeMatching matching{service};
    std::unique_ptr<zq::Bridge> bridge;
    std::unique_ptr<zq::Bridge> other;  // for players on other PCs, where a test needs them
};

// The fields of the next RoomEvent notification, replies skipped.
zq::FieldList next_event(FakeGame& game) {
    for (;;) {
        auto frame = game.read_frame(10.0);
        if (!frame) {
            ADD_FAILURE() << "no notification";
            return {};
        }
        if (frame->kind == 2) {
            EXPECT_EQ(frame->command, 10);
            EXPECT_EQ(frame->packet_id, 0u);
            return fields_of(frame->body);
        }
    }
}

}  // namespace

TEST(Rooms, CreateTakesTheServersWordAndAddsUs) {
    LogCapture log;
    Rig rig;
    FakeGame game;
    rig.game_as(game, "alice");
    {
        std::lock_guard<std::mutex> guard(rig.bridge->sessions_lock);
        rig.bridge->last_advertisement = {{"SessionId", "ad"}, {"AreaId", 4}};
    }
    rig.service.answer_once(kCreate, ScriptedAnswer::json({{"ResKind", 0}, {"RoomId", 77}, {"SessionId", "s77"},
                                                           {"MaxMembers", 8}}));
    auto reply = game.request(101, 2, length_prefixed(""));  // no field 2: five places asked
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->result(), 0);
    json sent = rig.service.requests_to(kCreate).at(0).json();
    EXPECT_EQ(sent["MaxMembers"], 5);
    EXPECT_EQ(sent["HostArea"], 4);
    EXPECT_EQ(sent["OnlineId"], "alice");

    zq::FieldList f = fields_of(reply->payload());
    EXPECT_EQ(zq::number_field(f, 1, 0), 77u);
    EXPECT_EQ(zq::number_field(f, 5, 0), 1u);
    EXPECT_EQ(zq::number_field(f, 6, 0), 8u);  // the reply's maximum wins
    zq::FieldList summary;
    zq::decode(zq::string_field(f, 9), summary);
    auto entries = all_strings(summary, 2);
    ASSERT_EQ(entries.size(), 1u);  // no Members in the reply: ourselves alone, as owner
    zq::FieldList us;
    zq::decode(entries[0], us);
    EXPECT_EQ(zq::string_field(us, 1), "alice");
    EXPECT_EQ(zq::number_field(us, 4, 0), 1u);
    EXPECT_EQ(zq::number_field(us, 9, 0), 0x80000000u);
    EXPECT_EQ(zq::string_field(us, 10), "192.0.2.10");  // no ping, no gateway: the LAN text on 9307
    EXPECT_EQ(zq::number_field(us, 11, 0), 9307u);
    zq::FieldList block;
    zq::decode(zq::string_field(summary, 1), block);
    EXPECT_EQ(zq::number_field(block, 3, 0), 7u);
    EXPECT_EQ(log.count("room 77 created (member 1, max 8)"), 1);

    // A second create drops the first room without telling the server.
    ASSERT_TRUE(game.request(101, 3, length_prefixed(varint_field(2, 4))));
    EXPECT_TRUE(rig.service.requests_to(kLeave).empty());
    EXPECT_EQ(rig.service.requests_to(kCreate).at(1).json()["MaxMembers"], 4);
}

TEST(Rooms, JoinLeaveKickAndTheirFailures) {
    LogCapture log;
    Rig rig;
    FakeGame game;
    rig.game_as(game, "bob");

    // Leave with no room calls nothing but still echoes.
    auto reply = game.request(103, 1, length_prefixed(varint_field(1, 42)));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->body, std::string(1, '\0') + length_prefixed(varint_field(1, 42)));
    EXPECT_TRUE(rig.service.requests_to(kLeave).empty());

    reply = game.request(102, 2, length_prefixed(""));
    EXPECT_EQ(reply->result(), 3);  // room 0
    reply = game.request(102, 3, length_prefixed(varint_field(1, 555)));
    EXPECT_EQ(reply->result(), 14);
    EXPECT_EQ(log.count("join_room(555) failed: /mp/matching2/join_room: refused: no such room"), 1);

    FakeGame host;
    rig.game_as(host, "carol");
    ASSERT_EQ(host.request(101, 1, length_prefixed(""))->result(), 0);  // room 1001, carol is 1
    reply = game.request(102, 4, length_prefixed(varint_field(1, 1001)));
    ASSERT_EQ(reply->result(), 0);
    zq::FieldList f = fields_of(reply->payload());
    EXPECT_EQ(zq::number_field(f, 2, 0), 2u);
    zq::FieldList summary;
    zq::decode(zq::string_field(f, 6), summary);
    EXPECT_EQ(all_strings(summary, 2).size(), 2u);
    EXPECT_EQ(log.count("room 1001 joined (member 2 of max 5)"), 1);

    // Kicking someone the table does not know still goes to the server.
    reply = game.request(110, 5, length_prefixed(varint_field(1, 6) + varint_field(3, 9)));
    EXPECT_EQ(reply->body, std::string(1, '\0') + length_prefixed(varint_field(1, 6)));
    json kick = rig.service.requests_to(kKick).at(0).json();
    EXPECT_EQ(kick, (json{{"SessionId", "session-1001"}, {"MemberId", 9}, {"KickerMemberId", 2}, {"OptData", ""}}));

    // A refused leave is logged and the room is gone all the same.
    rig.service.answer_once(kLeave, ScriptedAnswer::json({{"ResKind", 1}, {"Message", "busy"}}));
    ASSERT_TRUE(game.request(103, 6, length_prefixed("")));
    EXPECT_EQ(log.count("leave_room failed: /mp/matching2/leave_room: refused: busy"), 1);
    ASSERT_TRUE(game.request(103, 7, length_prefixed("")));
    EXPECT_EQ(rig.service.requests_to(kLeave).size(), 1u);
}

TEST(Rooms, JoinKeepsOnlyTheInvitingHostsLink) {
    LogCapture log;
    Rig rig(true);
    rig.other = rig.make_bridge(false, 0.02);
    FakeGame game, zed_game, host_game;
    auto session = rig.game_as(game, "dave");
    rig.game_as(zed_game, "zed", rig.other.get());
    rig.game_as(host_game, "hoster", rig.other.get());
    zq::p2p::Gateway& gateway = *rig.bridge->gateway;

    ASSERT_EQ(game.request(100, 1, length_prefixed(""))->result(), 0);
    ASSERT_EQ(game.request(101, 2, length_prefixed(""))->result(), 0);       // dave's room 1001
    ASSERT_EQ(host_game.request(101, 1, length_prefixed(""))->result(), 0);  // hoster's room 1002
    ASSERT_EQ(zed_game.request(102, 1, length_prefixed(varint_field(1, 1001)))->result(), 0);
    EXPECT_EQ(zq::number_field(next_event(game), 3, 0), 4353u);  // zed joined: he has a link now

    rig.matching.rooms.push_event("dave", {{"Name", "guest_invite"}, {"RoomId", 1002}, {"HostOnlineId", "hoster"},
                                    {"HostAddr", "203.0.113.7"}, {"HostPort", 3658}, {"HostArea", 2}, {"HostLevel", 9}});
    rig.matching.rooms.push_event("dave", {{"Name", "guest_invite"}, {"RoomId", 1003}});  // no host: stored, no link
    ASSERT_TRUE(wait_until([&] { return rig.matching.rooms.acked_cursor("dave") == 3; }, 10.0));
    EXPECT_EQ(log.count("event: guest_invite for room 1002 from hoster at 203.0.113.7:3658 (area 2 level 9)"), 1);
    EXPECT_EQ(gateway.links_snapshot().size(), 2u);
    auto host_link = gateway.port_address_of("hoster");
    ASSERT_TRUE(host_link);
    ASSERT_TRUE(gateway.port_address_of("zed"));

    auto reply = game.request(102, 3, length_prefixed(varint_field(1, 1002)));
    ASSERT_EQ(reply->result(), 0);
    EXPECT_EQ(gateway.port_address_of("hoster"), host_link);  // the same link, still punching
    EXPECT_FALSE(gateway.port_address_of("zed"));
    EXPECT_FALSE(gateway.port_address_of("dave"));  // never a link to ourselves
    EXPECT_EQ(gateway.links_snapshot().size(), 1u);

    // The game is told the link's loopback address for the host.
    zq::FieldList summary;
    zq::decode(zq::string_field(fields_of(reply->payload()), 6), summary);
    zq::FieldList first;
    zq::decode(all_strings(summary, 2).at(0), first);
    EXPECT_EQ(zq::string_field(first, 1), "hoster");
    EXPECT_EQ(zq::string_field(first, 10), "127.0.0.1");
    EXPECT_EQ(zq::number_field(first, 11, 0), static_cast<std::uint64_t>(host_link->port));
    EXPECT_TRUE(rig.service.requests_to(kLeave).empty());  // the old room is dropped without a word
    std::lock_guard<std::mutex> guard(session->session_lock);
    EXPECT_EQ(session->pending_invites.size(), 2u);
}

TEST(Rooms, MembersComeAndGoAsEvents) {
    LogCapture log;
    Rig rig;
    FakeGame alice_game, bob_game;
    rig.game_as(alice_game, "alice");
    rig.game_as(bob_game, "bob");
    ASSERT_TRUE(alice_game.request(100, 1, length_prefixed(varint_field(1, 31))));
    EXPECT_EQ(log.count("warning: no STUN ping seen for 'alice' yet; P2P endpoint unknown"), 1);
    ASSERT_EQ(alice_game.request(101, 2, length_prefixed(""))->result(), 0);
    ASSERT_EQ(bob_game.request(102, 1, length_prefixed(varint_field(1, 1001)))->result(), 0);

    zq::FieldList joined = next_event(alice_game);
    EXPECT_EQ(zq::number_field(joined, 1, 0), 31u);
    EXPECT_EQ(zq::number_field(joined, 2, 0), 1001u);
    EXPECT_EQ(zq::number_field(joined, 3, 0), 4353u);
    EXPECT_EQ(zq::number_field(joined, 4, 0), 4u);
    zq::FieldList entry;
    zq::decode(zq::string_field(joined, 6), entry);
    EXPECT_EQ(zq::string_field(entry, 1), "bob");
    EXPECT_EQ(zq::number_field(entry, 2, 0), 2u);
    EXPECT_TRUE(log.wait_for("event: member 2 (bob) joined room 1001"));

    // Bob's game goes away: his session leaves the room, and alice sees him go.
    bob_game.close();
    zq::FieldList left = next_event(alice_game);
    EXPECT_EQ(zq::number_field(left, 3, 0), 4354u);
    EXPECT_EQ(zq::number_field(left, 4, 0), 1u);
    EXPECT_TRUE(log.wait_for("event: member 2 left (leave_room)"));
    EXPECT_EQ(rig.matching.rooms.room_members(1001).size(), 1u);
    ASSERT_TRUE(wait_until([&] { return rig.matching.rooms.acked_cursor("alice") == 2; }, 10.0));
}

TEST(Rooms, PushedEventsBecomeNotifications) {
    LogCapture log;
    Rig rig;
    FakeGame game;
    rig.game_as(game, "alice");
    ASSERT_EQ(game.request(101, 1, length_prefixed(""))->result(), 0);
    auto push = [&](json event) { rig.matching.rooms.push_event("alice", std::move(event)); };
    push({{"Name", "room_member_joined"}, {"RoomId", 1001}, {"MemberId", 2}, {"OnlineId", "b"}});
    push({{"Name", "room_member_joined"}, {"RoomId", 1001}, {"MemberId", 3}, {"OnlineId", "c"}});
    push({{"Name", "room_member_left"}, {"MemberId", 2}, {"Reason", "timeout"}});
    push({{"Name", "room_member_left"}, {"MemberId", 3}});
    push({{"Name", "mystery"}});
    ASSERT_TRUE(game.request(100, 2, length_prefixed("")));

    struct Expected {
        std::uint64_t code, reason, member;
    } expected[] = {{4353, 4, 2}, {4353, 4, 3}, {4354, 5, 2}, {4354, 1, 3}};
    for (const auto& e : expected) {
        zq::FieldList f = next_event(game);
        EXPECT_EQ(zq::number_field(f, 3, 0), e.code);
        EXPECT_EQ(zq::number_field(f, 4, 0), e.reason);
        zq::FieldList entry;
        zq::decode(zq::string_field(f, 6), entry);
        EXPECT_EQ(zq::number_field(entry, 2, 0), e.member);
    }
    ASSERT_TRUE(wait_until([&] { return rig.matching.rooms.acked_cursor("alice") == 5; }, 10.0));
    EXPECT_EQ(log.count("event: member 2 left (timeout)"), 1);
    EXPECT_EQ(log.count("event: member 3 left (?)"), 1);
    EXPECT_EQ(log.count("event: mystery (untranslated)"), 1);

    // Closing: every member leaves, ourselves included; then we are in no room.
    push({{"Name", "room_member_joined"}, {"MemberId", 4}, {"OnlineId", "d"}});
    push({{"Name", "room_closed"}, {"RoomId", 1001}});
    EXPECT_EQ(zq::number_field(next_event(game), 3, 0), 4353u);
    for (std::uint64_t member : {1u, 4u}) {
        zq::FieldList f = next_event(game);
        EXPECT_EQ(zq::number_field(f, 3, 0), 4354u);
        EXPECT_EQ(zq::number_field(f, 4, 0), 1u);
        zq::FieldList entry;
        zq::decode(zq::string_field(f, 6), entry);
        EXPECT_EQ(zq::number_field(entry, 2, 0), member);
    }
    EXPECT_TRUE(log.wait_for("event: room 1001 closed (?)"));

    // Kicked, with no MemberId: no entry, and -1 as 32 bits.
    ASSERT_EQ(game.request(101, 3, length_prefixed(""))->result(), 0);
    push({{"Name", "room_member_kicked"}, {"RoomId", 1002}});
    zq::FieldList kicked = next_event(game);
    EXPECT_EQ(zq::number_field(kicked, 2, 0), 1002u);
    EXPECT_EQ(zq::number_field(kicked, 3, 0), 4355u);
    EXPECT_EQ(zq::number_field(kicked, 4, 0), 2u);
    EXPECT_EQ(zq::number_field(kicked, 5, 0), 0xFFFFFFFFu);
    EXPECT_TRUE(zq::string_field(kicked, 6).empty());
    EXPECT_TRUE(log.wait_for("event: we were kicked from room 1002"));
    ASSERT_TRUE(game.request(103, 4, length_prefixed("")));  // in no room now: nothing to leave
    EXPECT_TRUE(rig.service.requests_to(kLeave).empty());
}

// A poll interval far longer than any wait here: whatever comes at once was not waited for.
TEST(Rooms, PumpTimingWithoutWaitingItOut) {
    LogCapture log;
    Rig rig(false, 60.0);
    FakeGame game;
    auto session = rig.game_as(game, "alice");
    ASSERT_EQ(game.request(101, 1, length_prefixed(""))->result(), 0);

    // The first tick in a room beats at once; the server says we are out.
    rig.service.answer_once(kHeartbeat, ScriptedAnswer::json({{"ResKind", 0}, {"InRoom", false}}));
    // One failed poll is retried at once and silently; the second is logged and backs off.
    rig.service.answer_once(kPoll, ScriptedAnswer::text(500, ""));
    rig.service.answer_once(kPoll, ScriptedAnswer::text(500, ""));
    ASSERT_EQ(game.request(100, 2, length_prefixed(""))->result(), 0);
    EXPECT_TRUE(log.wait_for("server says we are no longer in room 1001"));
    EXPECT_TRUE(log.wait_for("event poll failed (2 in a row): /np/events/poll: HTTP 500"));
    EXPECT_EQ(rig.service.requests_to(kPoll).size(), 2u);
    EXPECT_FALSE(log.contains("(1 in a row)"));

    // Stopping the context ends the pump inside its 3-second back-off.
    ASSERT_TRUE(session->pump_running);
    ASSERT_TRUE(game.request(106, 3, ""));
    EXPECT_TRUE(wait_until([&] { return !session->pump_running; }, 2.0));

    // A later context start runs a new pump, and a poll that hangs holds no command back.
    rig.service.answer_once(kPoll, ScriptedAnswer::delayed(30.0, {{"HasEvent", 0}}));
    ASSERT_EQ(game.request(100, 4, length_prefixed(""))->result(), 0);
    ASSERT_TRUE(wait_until([&] { return rig.service.requests_to(kPoll).size() == 3; }, 10.0));
    auto reply = game.request(101, 5, length_prefixed(""), 3.0);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result(), 0);
    EXPECT_TRUE(rig.service.requests_to(kLeave).empty());  // the heartbeat's verdict left nothing behind
}
