#include "bridge/frames.h"
#include "bridge/login.h"
#include "bridge/stun_responder.h"

#include "support/prelude.h"

using namespace zq;

TEST(Frames, FieldMessageEncoding) {
    struct Case {
        FieldMessage message;
        std::string expected;
    } cases[] = {
        {FieldMessage().number(1, 1), bytes({0x08, 0x01})},
        {FieldMessage().number(2, 300), bytes({0x10, 0xAC, 0x02})},
        {FieldMessage().number(1, ~0ull), bytes({0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01})},
        {FieldMessage().signed_number(5, -1),
         bytes({0x28, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01})},
        {FieldMessage().string(1, "hi"), bytes({0x0A, 0x02, 'h', 'i'})},
        {FieldMessage().string(16, ""), bytes({0x82, 0x01, 0x00})},
        {FieldMessage().number_if_set(1, 0).string_if_set(2, "").number_if_set(3, 7), bytes({0x18, 0x07})},
    };
    for (const auto& c : cases) EXPECT_EQ(c.message.bytes(), c.expected);

    EXPECT_EQ(wrap_message(""), bytes({0, 0, 0, 0}));
    EXPECT_EQ(wrap_message(bytes({0x08, 0x01})), bytes({2, 0, 0, 0, 0x08, 0x01}));
}

// Decoding is lenient: what was read before a flaw counts, and the last of a repeated field wins;
// a message's length prefix may promise more than comes, and what is behind it is ignored.
TEST(Frames, DecodeAndUnwrapLeniently) {
    struct Case {
        const char* what;
        std::string input;
        bool ok;
        std::size_t records;
    } cases[] = {
        {"empty", "", true, 0},
        {"varint and string", bytes({0x08, 0x05, 0x12, 0x01, 'x'}), true, 2},
        {"fixed64 and fixed32", bytes({0x09, 1, 0, 0, 0, 0, 0, 0, 0, 0x15, 2, 0, 0, 0}), true, 2},
        {"11-byte varint after a good field",
         bytes({0x08, 0x05, 0x10, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}), false, 1},
        {"varint running out", bytes({0x08, 0x05, 0x10, 0x80}), false, 1},
        {"string longer than the rest", bytes({0x08, 0x05, 0x12, 0x05, 'x'}), false, 1},
        {"fixed32 cut short", bytes({0x15, 1, 0}), false, 0},
        {"group wire type", bytes({0x08, 0x05, 0x0B, 0x00}), false, 1},
    };
    for (const auto& c : cases) {
        FieldList list;
        EXPECT_EQ(decode(c.input, list), c.ok) << c.what;
        EXPECT_EQ(list.size(), c.records) << c.what;
    }

    FieldList list;
    ASSERT_TRUE(decode(bytes({0x08, 0x05, 0x0A, 0x01, 'a', 0x08, 0x06, 0x0A, 0x01, 'b', 0x15, 9, 0, 0, 0}), list));
    EXPECT_EQ(number_field(list, 1, 99), 6u);
    EXPECT_EQ(string_field(list, 1), "b");
    EXPECT_EQ(number_field(list, 2, 99), 9u);  // fixed width accepted where a varint is expected
    EXPECT_EQ(number_field(list, 3, 99), 99u);
    EXPECT_EQ(string_field(list, 2), "");

    std::string out = "untouched";
    EXPECT_FALSE(unwrap_message(bytes({1, 0, 0}), out));
    ASSERT_TRUE(unwrap_message(bytes({0, 0, 0, 0}), out));
    EXPECT_EQ(out, "");
    ASSERT_TRUE(unwrap_message(bytes({9, 0, 0, 0, 0x08, 0x01}), out));  // count promises too much
    EXPECT_EQ(out, bytes({0x08, 0x01}));
    ASSERT_TRUE(unwrap_message(bytes({1, 0, 0, 0, 0x08, 0x01}), out));  // bytes behind are ignored
    EXPECT_EQ(out, bytes({0x08}));
    ASSERT_TRUE(unwrap_message(bytes({0xFF, 0xFF, 0xFF, 0xFF, 0x08, 0x01}), out));
    EXPECT_EQ(out, bytes({0x08, 0x01}));

    EXPECT_FALSE(read_request(bytes({2, 0})).has_value());
    auto fields = read_request(bytes({4, 0, 0, 0, 0x10, 0x07, 0x18, 0x80}));  // second field damaged
    ASSERT_TRUE(fields.has_value());
    EXPECT_EQ(number_field(*fields, 2, 0), 7u);
}

TEST(StunPing, ParseAndReply) {
    std::string id16 = "ABCDEFGHIJKLMNOP";
    struct Case {
        const char* what;
        std::string datagram;
        std::optional<std::string> id;
    } cases[] = {
        {"20 bytes", "\x01" + std::string("alice") + std::string(14, '\0'), std::nullopt},
        {"21 bytes", "\x01" + std::string("alice") + std::string(15, '\0'), "alice"},
        {"first byte 2", "\x02" + std::string("alice") + std::string(15, '\0'), std::nullopt},
        {"id of 16 bytes, no zero", "\x01" + id16 + "tail", id16},
        {"empty id", std::string("\x01", 1) + std::string(20, '\0'), ""},
        {"long datagram", "\x01" + std::string("bob") + std::string(500, '\0'), "bob"},
    };
    for (const auto& c : cases) EXPECT_EQ(parse_stun_ping(c.datagram), c.id) << c.what;

    EXPECT_EQ(stun_reply(Endpoint{"127.0.0.1", 0x1234}), bytes({127, 0, 0, 1, 0x12, 0x34}));
    EXPECT_EQ(stun_reply(Endpoint{"203.0.113.9", 65535}), bytes({203, 0, 113, 9, 0xFF, 0xFF}));
}

// The empty name's id is a row of Bridge.GreetsThenAnswersTheFixedRows (the identity before login).
TEST(StableAccountId, KnownValue) { EXPECT_EQ(stable_account_id("abc"), 0x10a5f75fcfba75ull); }
