// A local program that opens connections by the hundred, sends large frames that never end or
// uses up the process's file handles must not take the command port away from the game.

#include <algorithm>

#include "support/bridge_rig.h"

namespace {

class CommandPortLoad : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(bridge = rig.start()); }

    // A fresh game still gets its Hello and an answer.
    bool port_answers() {
        FakeGame game;
        if (!game.connect_and_greet(bridge->bound_tcp_port())) return false;
        auto reply = game.request(104, 1, "");
        return reply && reply->result() == 0;
    }

    BridgeRig rig;
    zq::App* bridge = nullptr;
};

}  // namespace

// 500 connections that each send one frame and then sit idle, opened one after another: each
// is served, since a full port takes the slot of the connection idle longest without a login;
// threads and memory stay bounded, the game that logged in first keeps its connection, and a
// new game still logs in.
TEST_F(CommandPortLoad, IdleConnectionsGiveWayToTheGame) {
    FakeGame& game = rig.game("ash");
    const auto before = zq::process_usage();
    std::vector<std::unique_ptr<FakeGame>> idle;
    for (int i = 0; i < 500; ++i) {
        idle.push_back(std::make_unique<FakeGame>());
        ASSERT_TRUE(idle.back()->connect_and_greet(bridge->bound_tcp_port())) << i;
        auto reply = idle.back()->request(104, 1, "");
        ASSERT_TRUE(reply && reply->result() == 0) << i;
    }
    const auto during = zq::process_usage();
    EXPECT_LE(during.threads, before.threads + zq::Bridge::max_game_connections + 4);
    // A thread's stack counts as memory on Windows: allow for the capped threads.
    if (!sanitizer_build() && during.memory_bytes && before.memory_bytes)
        EXPECT_LT(during.memory_bytes, before.memory_bytes + (2ull << 20) * zq::Bridge::max_game_connections + (16ull << 20));
    EXPECT_TRUE(rig.log.contains("tcp: took a connection slot back from 127.0.0.1:"));

    auto reply = game.request(104, 2, "");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result(), 0);
    rig.game("elm");
}

// Forty connections that each send all but the last byte of an 8 MiB frame: the bridge holds
// what its frame budget allows and closes the others, and the game still logs in.
TEST_F(CommandPortLoad, PartialLargeFramesStayWithinTheBudget) {
    if (sanitizer_build()) GTEST_SKIP() << "a sanitizer's shadow memory hides what the bridge holds";
    const std::string frame = frame_header(0, 104, 0x800000, 1) + std::string(0x800000 - 16, 'x');
    const std::uint64_t before = zq::process_usage().memory_bytes;
    if (before == 0) GTEST_SKIP() << "this system does not tell the process's memory";
    std::uint64_t most = before;
    std::vector<std::unique_ptr<FakeGame>> senders;
    for (int i = 0; i < 40; ++i) {
        senders.push_back(std::make_unique<FakeGame>());
        ASSERT_TRUE(senders.back()->connect_and_greet(bridge->bound_tcp_port())) << i;
        // Fails where the bridge closed the connection. Wine's blocking send may miss that the
        // peer reset, so it gets a deadline beyond the bridge's frame deadline.
        senders.back()->send_raw(frame, 15.0);
        most = std::max(most, zq::process_usage().memory_bytes);
    }
    // The frame budget and each connection's small allowance, where the frames' sum is 320 MiB.
    EXPECT_LT(most - before, 32u << 20) << (before >> 20) << " MiB before, " << (most >> 20) << " MiB at most";
    EXPECT_TRUE(rig.log.contains("tcp: closed a connection whose frame did not fit in the memory left for frames"));
    rig.game("ash");
}

// With no file handle left, accept fails; the listener rests and comes back once handles are
// free, and the connection that waited in the queue is served.
TEST_F(CommandPortLoad, ListenerComesBackAfterRunningOutOfFileHandles) {
    if (!posix_files())
        GTEST_SKIP() << "the file handle limit is a POSIX resource limit (RLIMIT_NOFILE); Windows has none to lower";
    // Every handle but one is taken; the client's socket takes the last, so accept finds none.
    ASSERT_TRUE(take_file_handles(1));
    FakeGame waiting;
    bool connected = waiting.connect(bridge->bound_tcp_port());
    bool accept_failed = connected && wait_until([&] { return rig.log.contains("tcp: accept failed"); }, 10.0);
    give_back_file_handles();
    ASSERT_TRUE(connected);
    ASSERT_TRUE(accept_failed);
    EXPECT_TRUE(waiting.read_bytes(19, 10.0));
    EXPECT_TRUE(port_answers());
}
