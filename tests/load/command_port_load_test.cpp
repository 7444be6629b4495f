// A local program that opens connections by the hundred, lies in its frame headers or uses up the
// process's file handles must not take the command port away from the game.

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
    zq::Bridge* bridge = nullptr;
};

}  // namespace

// 500 connections that never say a word: a bounded number is served, the others are closed at
// once, threads and memory stay bounded, and once they are gone the game is served again.
TEST_F(CommandPortLoad, FiveHundredIdleConnections) {
    if (running_under_wine())
        GTEST_SKIP() << "under Wine each connection takes long enough that the first ones meet their first-frame "
                        "deadline while the test still opens the rest, so the served ones cannot be counted";
    const auto before = zq::process_usage();
    std::vector<std::unique_ptr<FakeGame>> idle;
    // One at a time, each greeted or closed before the next: the listener's queue holds only 8.
    int greeted = 0;
    for (int i = 0; i < 500; ++i) {
        idle.push_back(std::make_unique<FakeGame>());
        FakeGame& game = *idle.back();
        ASSERT_TRUE(game.connect(bridge->bound_tcp_port())) << i;
        if (game.read_bytes(19, 10.0)) ++greeted;
        else ASSERT_TRUE(game.wait_closed(10.0)) << i;
    }
    EXPECT_LE(greeted, zq::Bridge::max_game_connections);
    const auto during = zq::process_usage();
    EXPECT_LE(during.threads, before.threads + zq::Bridge::max_game_connections + 4);
    if (!sanitizer_build() && during.memory_bytes && before.memory_bytes)
        EXPECT_LT(during.memory_bytes, before.memory_bytes + 64u * 1024 * 1024);

    idle.clear();
    EXPECT_TRUE(wait_until([&] { return port_answers(); }, 10.0));
}

// Twenty headers that each announce an 8 MiB body that never comes cost next to nothing.
TEST_F(CommandPortLoad, LyingHeadersDoNotReserveTheirBodies) {
    if (sanitizer_build()) GTEST_SKIP() << "a sanitizer's shadow memory hides what the bridge holds";
    // The connections and their threads come first, so that only what the headers cost is measured.
    std::vector<std::unique_ptr<FakeGame>> liars;
    for (int i = 0; i < 20; ++i) {
        liars.push_back(std::make_unique<FakeGame>());
        ASSERT_TRUE(liars.back()->connect_and_greet(bridge->bound_tcp_port()));
        ASSERT_TRUE(liars.back()->request(104, 1, ""));
    }
    const std::uint64_t before = zq::process_usage().memory_bytes;
    if (before == 0) GTEST_SKIP() << "this system does not tell the process's memory";
    for (auto& liar : liars) ASSERT_TRUE(liar->send_raw(frame_header(0, 0, 0x800000, 0) + "x"));
    // Waits out the time in which the bodies would have been reserved: growth must never come.
    EXPECT_FALSE(wait_until([&] { return zq::process_usage().memory_bytes > before + 8u * 1024 * 1024; }, 1.0))
        << (zq::process_usage().memory_bytes - before) / 1024 << " KiB more";
    EXPECT_TRUE(port_answers());
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
