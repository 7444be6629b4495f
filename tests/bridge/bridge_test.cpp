#include <random>

#include "support/bridge_rig.h"

TEST(Bridge, GreetsThenAnswersTheFixedRows) {
    BridgeRig rig;
    ASSERT_TRUE(rig.start());
    auto& log = rig.log;
    FakeGame game;
    ASSERT_TRUE(game.connect(rig.bridge().bound_tcp_port()));
    EXPECT_EQ(game.read_bytes(19), bytes({3, 0, 0, 19, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0}));

    const std::string empty_payload;
    const std::string empty_message = bytes({0, 0, 0, 0});
    struct Case {
        int command;
        std::string body;
        int code;
        std::string payload;
    } cases[] = {
        {8, "", 0, empty_payload},
        {9, "junk", 0, empty_payload},
        {10, "", 0, empty_payload},
        {11, "", 0, empty_payload},
        {40, "", 0, empty_payload},
        {12, "", 0, bytes({2, 0, 0, 0, 0x08, 0x01})},
        {104, "", 0, empty_message},
        {106, "", 0, empty_payload},
        {111, "", 0, bytes({6, 0, 0, 0, 0x0A, 0x04, 0x08, 0x01, 0x28, 0x01})},
        // Before login: no token, no name; field 2 is the stable id of the empty name.
        {39, "", 0, bytes({9, 0, 0, 0, 0x10, 0xf8, 0xe4, 0xde, 0xf6, 0x9c, 0xb7, 0xad, 0x08})},
        // The echo pair moves field 2 to field 1, and never answers a bad payload.
        {108, zq::wrap_message(bytes({0x10, 0x2A})), 0, bytes({2, 0, 0, 0, 0x08, 0x2A})},
        {109, zq::wrap_message(bytes({0x08, 0x2A})), 0, empty_message},
        {108, "ab", 0, empty_message},
        // Leave with no room only echoes.
        {103, zq::wrap_message(bytes({0x08, 0x07})), 0, bytes({2, 0, 0, 0, 0x08, 0x07})},
        {103, "", 0, empty_message},
        // Bodies too short for the length prefix.
        {0, "abc", 1, empty_payload},
        {100, "", 1, empty_payload},
        {101, "", 1, empty_payload},
        {102, "x", 1, empty_payload},
        {105, "", 1, empty_payload},
        {110, "", 1, empty_payload},
        {0, zq::wrap_message(bytes({0x0A, 0x03, ' ', '\t', ' '})), 8, empty_payload},
        {102, zq::wrap_message(""), 3, empty_payload},
        {2, "", 33, empty_payload},
        {107, "", 33, empty_payload},
        {112, "", 33, empty_payload},
        {65535, "", 33, empty_payload},
    };
    std::uint64_t packet = 0;
    for (const auto& c : cases) {
        // Packet ids are copied, whatever they are: 0 and all-ones included.
        packet = packet == 0 ? ~0ull : packet == ~0ull ? 1 : packet + 1;
        auto reply = game.request(static_cast<std::uint16_t>(c.command), packet, c.body);
        ASSERT_TRUE(reply) << c.command;
        EXPECT_EQ(reply->kind, 1);
        EXPECT_EQ(reply->command, c.command);
        EXPECT_EQ(reply->packet_id, packet) << c.command;
        EXPECT_EQ(reply->result(), c.code) << c.command;
        EXPECT_EQ(reply->payload(), c.payload) << c.command;
    }
    for (int unhandled : {2, 107, 112, 65535})
        EXPECT_EQ(log.count(zq::format_text("tcp: unhandled command %d (replying Unsupported)", unhandled)), 1);
    // A program on the command port sends unknown numbers at will: a few lines show it, not one each.
    zq::reset_log_limits();
    for (int i = 0; i < 50; ++i) ASSERT_EQ(game.request(5, 100 + i, "")->result(), 33);
    EXPECT_LE(log.count("tcp: unhandled command 5 (replying Unsupported)"), 10);
    zq::reset_log_limits();
    EXPECT_FALSE(log.contains("login:"));  // an id of blanks is not logged
    EXPECT_FALSE(log.contains("cmd "));    // no per-command lines without trace

    // Logout answers like row 8, then the connection ends.
    auto reply = game.request(1, 5, "");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->body, bytes({0}));
    EXPECT_TRUE(game.wait_closed());
    EXPECT_TRUE(log.wait_for("tcp: session for ? closed"));
    EXPECT_TRUE(wait_until([&] { return !rig.last_session(); }));
}

// Frames are found in the stream however it is cut, frames of other kinds are skipped, and the
// largest frame allowed is read whole. A bad header closes its connection without a reply; the
// bridge goes on serving others.
TEST(Bridge, FramesInTheStreamAndBadHeaders) {
    BridgeRig rig;
    ASSERT_TRUE(rig.start());
    const int port = rig.bridge().bound_tcp_port();
    FakeGame& game = rig.game();
    std::string stream = frame_header(2, 12, 15, 1) + frame_header(3, 12, 16, 2) + "z" + frame_header(0, 12, 15, 3) +
                         frame_header(1, 8, 15, 4) + frame_header(0, 104, 15, 5);
    for (char c : stream) ASSERT_TRUE(game.send_raw(std::string(1, c)));
    auto first = game.read_frame();
    auto second = game.read_frame();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->packet_id, 3u);
    EXPECT_EQ(first->body, bytes({0, 2, 0, 0, 0, 0x08, 0x01}));
    EXPECT_EQ(second->packet_id, 5u);
    ASSERT_TRUE(game.send_raw(frame_header(0, 8, 15, 6) + frame_header(0, 8, 15, 7)));
    auto a = game.read_frame();
    auto c = game.read_frame();
    ASSERT_TRUE(a && c);
    EXPECT_EQ(a->packet_id, 6u);
    EXPECT_EQ(c->packet_id, 7u);
    std::string body = zq::wrap_message(bytes({0x10, 0x05}));
    body.resize(0x800000 - 15, 'x');
    ASSERT_TRUE(game.send_raw(frame_header(0, 108, 0x800000, 11) + body));
    auto reply = game.read_frame(30);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->packet_id, 11u);
    EXPECT_EQ(reply->payload(), bytes({2, 0, 0, 0, 0x08, 0x05}));

    std::mt19937 random(12345);
    std::vector<std::string> attacks = {
        frame_header(0, 12, 14, 1),
        frame_header(0, 12, 0x800001, 1),
        frame_header(0, 12, 0xFFFFFFFF, 1),
        frame_header(0, 12, 0x800000, 1) + "only a little",  // promised 8 MiB, then the game leaves
        frame_header(0, 12, 20, 1).substr(0, 9),             // truncated header
    };
    std::string noise;
    for (int i = 0; i < 4000; ++i) noise.push_back(static_cast<char>(random()));
    attacks.push_back(noise);
    for (std::size_t i = 0; i < attacks.size(); ++i) {
        FakeGame bad;
        ASSERT_TRUE(bad.connect_and_greet(port));
        ASSERT_TRUE(bad.send_raw(attacks[i]));
        if (i < 3) EXPECT_TRUE(bad.wait_closed()) << i;  // out of bounds: closed at once, nothing answered
        bad.close();
        FakeGame next;
        ASSERT_TRUE(next.connect_and_greet(port)) << i;
        auto answer = next.request(12, 9, "");
        ASSERT_TRUE(answer) << i;
        EXPECT_EQ(answer->result(), 0);
    }
}

// A port that is taken fails the start with its reason, logged once; whatever the start had
// bound is let go, and the bridge that holds the port serves on.
TEST(Bridge, TakenPortFailsTheStartAndHoldsNoPort) {
    BridgeRig rig;
    ASSERT_TRUE(rig.start());
    const int port = rig.bridge().bound_tcp_port();
    auto& log = rig.log;
    log.clear();
    zq::Config config = rig.config;
    config.tcp_port = port;
    zq::App second(config);
    std::string error;
    EXPECT_FALSE(second.start(&error));
    EXPECT_TRUE(error.starts_with(
        zq::format_text("cannot listen on tcp 127.0.0.1:%d - is another bridge running? (error ", port)))
        << error;
    EXPECT_EQ(error.back(), ')');
    EXPECT_EQ(log.count(error), 1);
    EXPECT_FALSE(log.contains("listening:"));
    EXPECT_FALSE(second.bridge().running());
    second.stop();  // a second stop does nothing

    // The second game proxy asks for the service's port.
    config = rig.config;
    config.game_proxy_routes = {{0, rig.service.base_url()}, {rig.service.port(), rig.service.base_url()}};
    zq::App third(config);
    ASSERT_FALSE(third.start(&error));
    EXPECT_TRUE(error.starts_with("cannot listen on 127.0.0.1:" + std::to_string(rig.service.port()) + " (error "))
        << error;
    EXPECT_EQ(log.count(error), 1);
    int first_proxy = 0;
    for (const std::string& line : log.lines())
        if (auto at = line.find("game proxy :"); at != std::string::npos) first_proxy = std::stoi(line.substr(at + 12));
    ASSERT_NE(first_proxy, 0);
    for (int bound : {first_proxy, third.bound_webapi_port(), third.bound_tcp_port()}) {
        http::Server again;
        EXPECT_TRUE(again.start("127.0.0.1", bound, [](const http::ServerRequest&) { return http::ServerResponse{}; },
                                &error))
            << error;
    }

    FakeGame game;
    ASSERT_TRUE(game.connect_and_greet(port));
}
