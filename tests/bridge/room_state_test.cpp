#include "bridge/frames.h"
#include "bridge/room_state.h"

#include "support/prelude.h"

using namespace zq;

namespace {

FieldList fields_of(const std::string& message) {
    FieldList list;
    EXPECT_TRUE(decode(message, list));
    return list;
}

int count_field(const FieldList& list, std::uint32_t number) {
    int n = 0;
    for (const auto& f : list) n += f.number == number;
    return n;
}

}  // namespace

TEST(RoomState, BestEndpointPrefersAMappedAddressThatAddsSomething) {
    struct Case {
        const char* name;
        json record;
        Endpoint expected;
    } cases[] = {
        {"distinct mapped", {{"MappedAddr", "198.51.100.1"}, {"MappedPort", 4000}, {"Addr", "203.0.113.5"}, {"Port", 3000}},
         {"198.51.100.1", 4000}},
        {"mapped equal to Addr falls to Addr with Port",
         {{"MappedAddr", "203.0.113.5"}, {"MappedPort", 4000}, {"Addr", "203.0.113.5"}, {"Port", 3000}},
         {"203.0.113.5", 3000}},
        {"mapped equal to LAN",
         {{"MappedAddr", "10.0.0.2"}, {"MappedPort", 4000}, {"Addr", "203.0.113.5"}, {"Port", 3000}, {"LocalAddr", "10.0.0.2"}},
         {"203.0.113.5", 3000}},
        {"mapped port out of range", {{"MappedAddr", "198.51.100.1"}, {"MappedPort", 70000}, {"Addr", "a"}, {"Port", 1}},
         {"a", 1}},
        {"Addr without port gives the LAN pair", {{"Addr", "203.0.113.5"}, {"LocalAddr", "10.0.0.2"}, {"LocalPort", 9}},
         {"10.0.0.2", 9}},
        {"nothing at all", json::object(), {"", 0}},
    };
    for (const auto& c : cases) EXPECT_EQ(best_endpoint(c.record), c.expected) << c.name;
}

TEST(RoomState, SummaryEntriesMaskAndFreePlaces) {
    RoomState room;
    room.room_id = 7;
    room.member_id = 3;
    room.owner_member_id = 1;
    room.max_members = 2;
    upsert_members(room, json::array({{{"MemberId", 1}, {"OnlineId", "a"}},
                                      {{"MemberId", 70}, {"OnlineId", "far"}},
                                      {{"MemberId", 3}, {"OnlineId", "c"}},
                                      {{"OnlineId", "no id"}}}));
    upsert_members(room, json{{"MemberId", 9}});  // not a list: nothing
    ASSERT_EQ(room.members.size(), 3u);

    Endpoint reach{"127.0.0.1", 5000};
    // The owner carries 4 and 9; 8 is always there.
    EXPECT_EQ(member_entry(room.members[1], 1, reach),
              bytes({0x0A, 1, 'a', 0x10, 1, 0x20, 1, 0x40, 1, 0x48, 0x80, 0x80, 0x80, 0x80, 0x08, 0x52, 9, '1', '2',
                     '7', '.', '0', '.', '0', '.', '1', 0x58, 0x88, 0x27}));
    EXPECT_EQ(member_entry(room.members[3], 1, Endpoint{}), bytes({0x0A, 1, 'c', 0x10, 3, 0x40, 1}));

    int asked = 0;
    FieldList summary = fields_of(room_summary(room, [&](const json&) {
        ++asked;
        return reach;
    }));
    EXPECT_EQ(asked, 3);
    EXPECT_EQ(count_field(summary, 2), 3);  // id 70 is an entry...
    EXPECT_EQ(number_field(summary, 3, 0), 3u);
    EXPECT_EQ(number_field(summary, 4, 0), 1u);
    FieldList block = fields_of(string_field(summary, 1));
    EXPECT_EQ(number_field(block, 11, 0), 0b101u);  // ...but not a bit of the mask
    EXPECT_EQ(count_field(block, 3), 0);            // three entries in a room of two: no free places
    EXPECT_EQ(number_field(block, 1, 0), 2u);
    EXPECT_EQ(number_field(block, 5, 0), 2u);
    EXPECT_EQ(number_field(block, 9, 0), 7u);
    for (std::uint32_t always : {6u, 7u, 8u}) EXPECT_EQ(number_field(block, always, 0), 1u);
}

TEST(RoomState, RoomEventAndAttributes) {
    // Kicked: reason 2, extra -1 as 32 bits, no member entry.
    EXPECT_EQ(room_event_message(9, 1001, RoomWeWereKicked, ReasonKicked, -1, std::nullopt),
              bytes({16, 0, 0, 0, 0x08, 9, 0x10, 0xE9, 0x07, 0x18, 0x83, 0x22, 0x20, 2, 0x28, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}));
    EXPECT_EQ(room_event_message(0, 0, RoomMemberLeft, ReasonLeftOrClosed, 0, std::string("e")),
              bytes({8, 0, 0, 0, 0x18, 0x82, 0x22, 0x20, 1, 0x32, 1, 'e'}));

    EXPECT_EQ(leave_reason("leave_room"), ReasonLeftOrClosed);
    EXPECT_EQ(leave_reason("kicked"), ReasonKicked);

    EXPECT_TRUE(room_attributes(json()).is_null());
    EXPECT_TRUE(room_attributes(json::array()).is_null());
    json expected = {{"HostArea", 12}, {"HostLevel", 3}, {"HostPos", {0.0, 0.0, 0.0}}, {"MemberTag", 1}};
    EXPECT_EQ(room_attributes({{"SessionId", "x"}, {"AreaId", "12"}, {"MatchingLevel", 3}}), expected);
    EXPECT_EQ(room_attributes({{"SessionId", "x"}}), (json{{"HostPos", {0.0, 0.0, 0.0}}, {"MemberTag", 1}}));
}
