#include <cstring>
#include <tuple>

#include "p2p/framing.h"
#include "support/prelude.h"

using namespace zq::p2p;

namespace {

std::string le(std::uint64_t v, int size) {
    std::string out;
    for (int i = 0; i < size; ++i) out.push_back(static_cast<char>(v >> (8 * i)));
    return out;
}

std::string control(unsigned char kind, unsigned char step, std::size_t length) {
    std::string f(length, '\0');
    std::memcpy(f.data(), "NIMB", 4);
    f[4] = static_cast<char>(kind);
    if (length > 5) f[5] = static_cast<char>(step);
    return f;
}

HelloRecord record() {
    HelloRecord r;
    r.peer_name = fixed16("bob");
    r.port_name = fixed16("alice-with-a-very-long-name");
    r.peer_member = 2;
    r.port_member = 1;
    r.room_id = 0x1122334455667788ULL;
    r.hello_token = 2 + 0x4242;
    return r;
}

}  // namespace

TEST(Framing, PortFramesBecomePeerFramesAndBackAndPeerFramesAreChecked) {
    const std::tuple<const char*, std::string, int, std::string> cases[] = {
        {"too short", "\x00\x05\x00"s, 0, "untouched"},
        {"narrow, empty payload", "\x00\x05\x00\x05"s, 1, "\xFF\xC3\x05\x05"s},
        {"narrow at 255/255", "\x00\xFF\x00\xFFhi"s, 1, "\xFF\xC3\xFF\xFFhi"s},
        {"wide at 255/256", "\x00\xFF\x01\x00hi"s, 1, "\xFF\x83\x00\xFF\x01\x00hi"s},
        {"wide at 256/5", "\x01\x00\x00\x05"s, 1, "\xFF\x83\x01\x00\x00\x05"s},
        {"65534 is data, wide", "\x00\x01\xFF\xFEx"s, 1, "\xFF\x83\x00\x01\xFF\xFEx"s},
        {"65535 is control even from 0", "\x00\x00\xFF\xFFNIMB"s, 2, "NIMB"},
    };
    for (const auto& [name, port, result, peer] : cases) {
        std::string out = "untouched", back;
        EXPECT_EQ(port_frame_to_peer(port, out), result) << name;
        EXPECT_EQ(out, peer) << name;
        if (result == 1) EXPECT_TRUE(peer_frame_to_port(out, back) && back == port) << name;
    }

    // Peer frames that are accepted or refused.
    const std::tuple<const char*, std::string, bool, std::string> peer_cases[] = {
        {"narrow, 4 bytes", "\xFF\xC3\x01\x02"s, true, "\x00\x01\x00\x02"s},
        {"wide needs 4 port bytes", "\xFF\x83\x01\x02\x03"s, false, ""},
        {"wide, 6 bytes", "\xFF\x83\x01\x02\x03\x04"s, true, "\x01\x02\x03\x04"s},
        {"bad marker", "\xFE\xC3\x01\x02"s, false, ""},
        {"3 bytes", "\xFF\xC3\x01"s, false, ""},
        {"flag 0x20 skips four bytes", "\xFF\x63....\x07\x08pay"s, true, "\x00\x07\x00\x08pay"s},
        {"flag 0x20, ports cut off", "\xFF\x63....\x07"s, false, ""},
        {"wide with skip", "\xFF\x20....\x01\x00\x00\x02"s, true, "\x01\x00\x00\x02"s},
        {"other flag bits ignored", "\xFF\x40\x09\x0A"s, true, "\x00\x09\x00\x0A"s},
    };
    for (const auto& [name, peer, ok, port] : peer_cases) {
        std::string out;
        EXPECT_EQ(peer_frame_to_port(peer, out), ok) << name;
        if (ok) EXPECT_EQ(out, port) << name;
    }
    EXPECT_TRUE(is_punch("\xFEzqhp"s));
    EXPECT_FALSE(is_punch("\xFEzqh"s));
    EXPECT_EQ(std::string(fixed16("bob").data(), 16), "bob"s + std::string(13, '\0'));
    EXPECT_EQ(std::string(fixed16("abcdefghijklmnopqrstuvwxyz").data(), 16), "abcdefghijklmnop");
}

// Each kind is answered at its exact length only; one byte off leaves port_answered clear.
TEST(Framing, ControlKindsAreAnsweredOnlyAtTheirLength) {
    const std::tuple<unsigned char, unsigned char, std::size_t, std::size_t> cases[] = {
        {5, 0, 17, 1}, {5, 0, 16, 0}, {5, 0, 18, 0},   //
        {7, 1, 62, 1}, {7, 1, 61, 0}, {7, 1, 63, 0},   //
        {16, 1, 50, 1}, {16, 1, 49, 0}, {16, 1, 51, 0}, //
        {33, 1, 50, 1}, {33, 1, 49, 0}, {33, 1, 62, 0}, //
        {6, 0, 17, 0}, {99, 1, 50, 0},
    };
    for (const auto& [kind, step, length, answers] : cases) {
        HelloRecord r = record();
        EXPECT_EQ(answer_control(r, control(kind, step, length), 0).size(), answers) << int(kind) << " at " << length;
        bool known = kind == 5 || kind == 7 || kind == 16 || kind == 33;
        EXPECT_EQ(r.port_answered, known && answers == 1) << int(kind) << " at " << length;
    }
    HelloRecord r = record();
    EXPECT_TRUE(answer_control(r, "NIM"s, 0).empty());
    EXPECT_TRUE(answer_control(r, "NIMX\x05............"s, 0).empty());
    EXPECT_FALSE(r.port_answered);
}

TEST(Framing, EchoAndClockAnswers) {
    HelloRecord r = record();
    std::string echo = control(5, 0, 17);
    echo.replace(5, 12, "0123456789AB");
    EXPECT_EQ(answer_control(r, echo, 0), std::vector{"NIMB\x06"s + "0123456789AB"});

    std::string clock = control(7, 1, 62);
    clock.replace(38, 4, le(0xCAFEBABE, 4));
    clock.replace(54, 8, le(777, 8));
    std::string names = std::string(r.peer_name.data(), 16) + std::string(r.port_name.data(), 16);
    const std::tuple<unsigned char, unsigned char, std::uint64_t> steps[] = {{1, 2, 0}, {2, 3, 123456789}, {3, 4, 777}};
    for (const auto& [in, out, time] : steps) {
        clock[5] = static_cast<char>(in);
        std::string expected = "NIMB\x07"s + static_cast<char>(out) + names + le(r.hello_token, 4) +
                               le(0xCAFEBABE, 4) + std::string(8, '\0') + le(time, 8);
        EXPECT_EQ(answer_control(r, clock, 123456789), std::vector{expected}) << "step " << int(in);
    }
    clock[5] = 4;
    EXPECT_TRUE(answer_control(r, clock, 1).empty());
}

TEST(Framing, IdentityStepFourIsAnsweredOnce) {
    HelloRecord r = record();
    std::string names = std::string(r.peer_name.data(), 16) + std::string(r.port_name.data(), 16);
    auto frame = [&](unsigned char step) {
        return "NIMB\x10"s + static_cast<char>(step) + names + le(r.hello_token, 4) + std::string(8, '\0');
    };
    EXPECT_EQ(hello_frame(r), frame(1));
    EXPECT_EQ(answer_control(r, control(16, 1, 50), 0), std::vector{frame(2)});
    EXPECT_EQ(answer_control(r, control(16, 4, 50), 0), std::vector{frame(4)});
    EXPECT_TRUE(r.hello_finished);
    EXPECT_TRUE(answer_control(r, control(16, 4, 50), 0).empty());
    EXPECT_EQ(answer_control(r, control(16, 1, 50), 0).size(), 1u);
    EXPECT_TRUE(answer_control(r, control(16, 2, 50), 0).empty());
}

TEST(Framing, RoomExchangeLearnsBeforeItAnswers) {
    HelloRecord r = record();
    r.peer_member = 0;
    r.port_member = 0;
    r.room_id = 5;
    EXPECT_EQ(room_hello_frame(r).substr(0, 6), "NIMB\x21\x01");

    std::string in = control(33, 1, 50);
    in.replace(6, 8, le(0, 8));  // zero room keeps ours
    in.replace(14, 2, le(7, 2));  // the port, as sender
    in.replace(16, 2, le(9, 2));  // the peer, as receiver
    std::string expected = "NIMB\x21\x02"s + le(5, 8) + le(9, 2) + le(7, 2) + std::string(r.peer_name.data(), 16) +
                           std::string(8, '\0') + le(0, 8);
    EXPECT_EQ(answer_control(r, in, 0), std::vector{expected});
    EXPECT_EQ(r.room_id, 5u);
    EXPECT_EQ(r.port_member, 7u);
    EXPECT_EQ(r.peer_member, 9u);

    // Members already known stay; a new room id overwrites; step 3 echoes the time.
    in.replace(6, 8, le(42, 8));
    in.replace(14, 2, le(70, 2));
    in.replace(16, 2, le(90, 2));
    in[5] = 3;
    in.replace(42, 8, le(31337, 8));
    auto a = answer_control(r, in, 0);
    EXPECT_EQ(r.room_id, 42u);
    EXPECT_EQ(r.port_member, 7u);
    EXPECT_EQ(r.peer_member, 9u);
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0][5], 4);
    EXPECT_EQ(a[0].substr(42), le(31337, 8));
    in[5] = 4;
    EXPECT_TRUE(answer_control(r, in, 0).empty());
    EXPECT_TRUE(r.port_answered);
}
