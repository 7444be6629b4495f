#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "bridge/bridge.h"
#include "support/bridge_config.h"
#include "support/fake_game.h"
#include "support/log_capture.h"
#include "support/ports.h"

using testing_support::FakeGame;
using testing_support::GameFrame;
using testing_support::length_prefixed;
using testing_support::LogCapture;
using testing_support::wait_until;

namespace {

std::string bytes(std::initializer_list<int> list) {
    std::string out;
    for (int b : list) out.push_back(static_cast<char>(b));
    return out;
}

zq::Config test_config() {
    return testing_support::local_bridge_config();
}

// A started bridge on free ports.
struct RunningBridge {
    explicit RunningBridge(zq::Config c = test_config()) : bridge(std::move(c)) {
        std::string error;
        started = bridge.start(&error);
        EXPECT_TRUE(started) << error;
    }
    int port() const { return bridge.bound_tcp_port(); }
    zq::Bridge bridge;
    bool started = false;
};

std::string header(int kind, int command, std::uint32_t total, std::uint64_t packet) {
    std::string h;
    h.push_back(static_cast<char>(kind));
    h.push_back(static_cast<char>(command & 0xFF));
    h.push_back(static_cast<char>(command >> 8));
    for (int i = 0; i < 4; ++i) h.push_back(static_cast<char>((total >> (8 * i)) & 0xFF));
    for (int i = 0; i < 8; ++i) h.push_back(static_cast<char>((packet >> (8 * i)) & 0xFF));
    return h;
}

}  // namespace

TEST(Bridge, GreetsThenAnswersTheFixedRows) {
    LogCapture log;
    RunningBridge b;
    FakeGame game;
    ASSERT_TRUE(game.connect(b.port()));
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
        {108, length_prefixed(bytes({0x10, 0x2A})), 0, bytes({2, 0, 0, 0, 0x08, 0x2A})},
        {109, length_prefixed(bytes({0x08, 0x2A})), 0, empty_message},
        {108, "ab", 0, empty_message},
        // Leave with no room only echoes.
        {103, length_prefixed(bytes({0x08, 0x07})), 0, bytes({2, 0, 0, 0, 0x08, 0x07})},
        {103, "", 0, empty_message},
        // Bodies too short for the length prefix.
        {0, "abc", 1, empty_payload},
        {100, "", 1, empty_payload},
        {101, "", 1, empty_payload},
        {102, "x", 1, empty_payload},
        {105, "", 1, empty_payload},
        {110, "", 1, empty_payload},
        {0, length_prefixed(bytes({0x0A, 0x03, ' ', '\t', ' '})), 8, empty_payload},
        {102, length_prefixed(""), 3, empty_payload},
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
    EXPECT_FALSE(log.contains("login:"));  // an id of blanks is not logged
    EXPECT_FALSE(log.contains("cmd "));    // no per-command lines without trace

    // Logout answers like row 8, then the connection ends.
    auto reply = game.request(1, 5, "");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->body, bytes({0}));
    EXPECT_TRUE(game.wait_closed());
    EXPECT_TRUE(log.wait_for("tcp: session for ? closed"));
    EXPECT_TRUE(wait_until([&] {
        std::lock_guard<std::mutex> guard(b.bridge.sessions_lock);
        return b.bridge.sessions.empty();
    }, 10.0));
}

TEST(Bridge, TraceLogsEachReply) {
    LogCapture log;
    auto config = test_config();
    config.trace = true;
    config.velmar_server = "http://127.0.0.1:" + std::to_string(testing_support::closed_port());
    RunningBridge b(config);
    FakeGame game;
    ASSERT_TRUE(game.connect_and_greet(b.port()));

    // An unreachable service leaves the peer unknown, quietly when there is no gateway.
    auto reply = game.request(105, 77, length_prefixed(bytes({0x0A, 0x01, 'p'})));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->body, bytes({26}));
    EXPECT_EQ(log.count("cmd 105 pkt 77 -> error 26, 0 bytes"), 1);
    EXPECT_FALSE(log.contains("signaling:"));

    reply = game.request(12, 78, "");
    ASSERT_TRUE(reply);
    EXPECT_EQ(log.count("cmd 12 pkt 78 -> error 0, 6 bytes"), 1);
}

// Frames are found in the stream however it is cut, and frames of other kinds are skipped.
TEST(Bridge, FramesSplitJoinedAndSkipped) {
    RunningBridge b;
    FakeGame game;
    ASSERT_TRUE(game.connect_and_greet(b.port()));

    std::string stream = header(2, 12, 15, 1) + header(3, 12, 16, 2) + "z" + header(0, 12, 15, 3) +
                         header(1, 8, 15, 4) + header(0, 104, 15, 5);
    for (char c : stream) ASSERT_TRUE(game.send_raw(std::string(1, c)));
    auto first = game.read_frame();
    auto second = game.read_frame();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->packet_id, 3u);
    EXPECT_EQ(first->body, bytes({0, 2, 0, 0, 0, 0x08, 0x01}));
    EXPECT_EQ(second->packet_id, 5u);

    ASSERT_TRUE(game.send_raw(header(0, 8, 15, 6) + header(0, 8, 15, 7)));
    auto a = game.read_frame();
    auto c = game.read_frame();
    ASSERT_TRUE(a && c);
    EXPECT_EQ(a->packet_id, 6u);
    EXPECT_EQ(c->packet_id, 7u);
}

// A bad header closes its connection without a reply; the bridge goes on serving others.
TEST(Bridge, BadInputClosesOnlyThatConnection) {
    RunningBridge b;
    std::mt19937 random(12345);
    std::vector<std::string> attacks = {
        header(0, 12, 14, 1),
        header(0, 12, 0x800001, 1),
        header(0, 12, 0xFFFFFFFF, 1),
        header(0, 12, 0x800000, 1) + "only a little",  // promised 8 MiB, then the game leaves
        header(0, 12, 20, 1).substr(0, 9),             // truncated header
    };
    std::string noise;
    for (int i = 0; i < 4000; ++i) noise.push_back(static_cast<char>(random()));
    attacks.push_back(noise);

    for (std::size_t i = 0; i < attacks.size(); ++i) {
        FakeGame game;
        ASSERT_TRUE(game.connect_and_greet(b.port()));
        ASSERT_TRUE(game.send_raw(attacks[i]));
        if (i < 3) {
            // Out of bounds: closed at once, and nothing answered.
            EXPECT_TRUE(game.wait_closed()) << i;
        }
        game.close();

        FakeGame next;
        ASSERT_TRUE(next.connect_and_greet(b.port())) << i;
        auto reply = next.request(12, 9, "");
        ASSERT_TRUE(reply) << i;
        EXPECT_EQ(reply->result(), 0);
    }
}

TEST(Bridge, MaximumFrameIsReadWhole) {
    RunningBridge b;
    FakeGame game;
    ASSERT_TRUE(game.connect_and_greet(b.port()));
    std::string body = length_prefixed(bytes({0x10, 0x05}));
    body.resize(0x800000 - 15, 'x');
    ASSERT_TRUE(game.send_raw(header(0, 108, 0x800000, 11) + body));
    auto reply = game.read_frame(30);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->packet_id, 11u);
    EXPECT_EQ(reply->payload(), bytes({2, 0, 0, 0, 0x08, 0x05}));
}

TEST(Bridge, StunRespondsAndLearns) {
    LogCapture log;
    RunningBridge b;
    zq::Socket udp = zq::open_udp_socket();
    ASSERT_TRUE(zq::bind_socket(udp, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0})));
    zq::SockAddr mine;
    ASSERT_TRUE(zq::local_address(udp, &mine));
    zq::Endpoint me = zq::from_sockaddr(mine);
    zq::SockAddr responder = zq::to_sockaddr(zq::Endpoint{"127.0.0.1", b.bridge.bound_udp_port()});

    auto ping = [&](const std::string& id, std::size_t size) {
        std::string d(size, '\0');
        d[0] = 1;
        d.replace(1, id.size(), id);
        zq::send_to(udp, d.data(), static_cast<int>(d.size()), responder);
    };
    auto answer = [&](int timeout_ms) -> std::optional<std::string> {
        std::vector<bool> ready;
        if (zq::wait_readable({udp}, timeout_ms, ready) < 1) return std::nullopt;
        char buffer[64];
        int n = zq::recv_from(udp, buffer, sizeof buffer, nullptr);
        return std::string(buffer, n < 0 ? 0 : n);
    };

    // The 20-byte ping teaches nothing; the 21-byte one that follows proves it was not answered,
    // since datagrams on loopback keep their order.
    ping("short", 20);
    ping("alice", 21);
    auto reply = answer(10000);
    ASSERT_TRUE(reply);
    auto port = static_cast<unsigned>(me.port);
    EXPECT_EQ(*reply, bytes({127, 0, 0, 1, static_cast<int>(port >> 8), static_cast<int>(port & 0xFF)}));
    ping("alice", 64);
    ping("bob", 21);
    ASSERT_TRUE(answer(10000));
    ASSERT_TRUE(answer(10000));
    {
        std::lock_guard<std::mutex> guard(b.bridge.endpoints_lock);
        EXPECT_EQ(b.bridge.stun_table.size(), 2u);
        EXPECT_EQ(b.bridge.stun_table["alice"], me);
        EXPECT_EQ(b.bridge.stun_table.count("short"), 0u);
    }
    EXPECT_EQ(log.count("stun: 'alice' pings from " + me.text()), 1);  // once, not per ping
    EXPECT_EQ(log.count("stun: 'bob' pings from " + me.text()), 1);
    zq::close_socket(udp);
}

TEST(Bridge, SecondCopyFailsAndHoldsNoPort) {
    RunningBridge first;
    LogCapture log;
    auto config = test_config();
    config.tcp_port = first.port();
    zq::Bridge second(config);
    std::string error;
    EXPECT_FALSE(second.start(&error));
    std::string expected_start =
        zq::format_text("cannot listen on tcp 127.0.0.1:%d - is another bridge running? (error ", first.port());
    EXPECT_EQ(error.rfind(expected_start, 0), 0u) << error;
    EXPECT_EQ(error.back(), ')');
    EXPECT_EQ(log.count(error), 1);
    EXPECT_FALSE(log.contains("listening:"));
    EXPECT_FALSE(second.running());
    second.stop();  // a second stop does nothing

    // The first still serves.
    FakeGame game;
    ASSERT_TRUE(game.connect_and_greet(first.port()));
}

// Stop wakes connections that never sent a Request as well as those with a session, so it
// does not sit out its wait for connection threads.
TEST(Bridge, StopEndsIdleConnectionsPromptly) {
    RunningBridge b;
    FakeGame idle, busy;
    ASSERT_TRUE(idle.connect_and_greet(b.port()));
    ASSERT_TRUE(busy.connect_and_greet(b.port()));
    ASSERT_TRUE(busy.request(12, 1, ""));

    auto began = std::chrono::steady_clock::now();
    b.bridge.stop();
    auto took = std::chrono::steady_clock::now() - began;
    EXPECT_LT(took, std::chrono::seconds(4));  // the bounded wait for stuck threads is 5 s
    EXPECT_TRUE(idle.wait_closed());
    EXPECT_TRUE(busy.wait_closed());
    EXPECT_TRUE(b.bridge.sessions.empty());
    b.bridge.stop();
}

TEST(Bridge, PickStunServer) {
    struct Case {
        std::string stun, velmar;
        std::optional<zq::Endpoint> expected;
    } cases[] = {
        {"off", "https://svc.example:18671", std::nullopt},
        {"stun.example:3479", "", zq::Endpoint{"stun.example", 3479}},
        {"stun.example", "", zq::Endpoint{"stun.example", 3478}},
        {"", "https://svc.example:18671/base", zq::Endpoint{"svc.example", 3478}},
        {"", "svc.example/x", zq::Endpoint{"svc.example", 3478}},
        {"", "https://", std::nullopt},
        {"", "", std::nullopt},
    };
    for (const auto& c : cases) {
        auto config = test_config();
        config.stun_server = c.stun;
        config.velmar_server = c.velmar;
        zq::Bridge bridge(config);
        EXPECT_EQ(bridge.pick_stun_server(), c.expected) << c.stun << " " << c.velmar;
    }
}
