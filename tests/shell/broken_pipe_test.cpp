#include "shell/util.h"
#include "support/fake_port.h"
#include "support/host.h"
#include "support/prelude.h"
#include "support/process.h"

// The console may go away under a running bridge, as a pipe whose reader has ended does. The
// bridge goes on serving, and ends as usual when asked to.
TEST(BrokenPipe, TheBridgeOutlivesAClosedStandardOutput) {
    if (running_under_wine()) GTEST_SKIP() << "Windows raises no signal for a closed pipe";
    const auto sh = find_program("sh");
    const auto kill = find_program("kill");
    if (sh.empty() || kill.empty()) GTEST_SKIP() << "needs sh and kill";

    TempDir dir;
    const int udp_port = free_port(false);
    write_file(dir.path() / "sarnlink_config.json",
               zq::format_text(R"({"tcp_port": 0, "udp_port": %d, "webapi_port": 0, "p2p_gateway": 0,
                                   "game_proxy_routes": {}})",
                               udp_port));
    // The reader takes the bridge's first line and ends; every later line meets a closed pipe.
    write_file(dir.path() / "pipe.sh",
               "{\n"
               "  sh -c 'echo \"bridge $$\" >&2; exec \"$0\" --config sarnlink_config.json' \"$1\"\n"
               "  echo \"bridge ended $?\" >&2\n"
               "} | {\n"
               "  head -n 1 >/dev/null\n"
               "  echo \"reader gone\" >&2\n"
               "}\n");
    Process shell(sh, {(dir.path() / "pipe.sh").string(), cli_path().string()}, dir.path());
    ASSERT_TRUE(shell.wait_for_output("reader gone\n")) << shell.output();
    std::string out = shell.output();
    std::size_t at = out.find("bridge ");
    ASSERT_NE(at, std::string::npos) << out;
    std::string pid = out.substr(at + 7, out.find('\n', at) - at - 7);

    // Each ping with a new id writes a log line before its answer.
    FakePort game;
    for (const char* id : {"one", "two"}) {
        const std::string ping = stun_ping(id);
        bool answered = false;
        double deadline = zq::steady_seconds() + 20.0;
        while (!answered && zq::steady_seconds() < deadline) {
            game.send_raw(zq::Endpoint{"127.0.0.1", udp_port}, ping);
            auto reply = game.receive(0.2);
            answered = reply && reply->bytes.size() == 6;
        }
        ASSERT_TRUE(answered) << id << "\n" << shell.output();
    }
    EXPECT_EQ(run_process(kill, {"-TERM", pid}, dir.path()).exit_code, 0);
    EXPECT_EQ(shell.wait(20.0), 0) << shell.output();
    EXPECT_NE(shell.output().find("bridge ended 0\n"), std::string::npos) << shell.output();
}
