#include <tuple>

#include "app/cli.h"
#include "shell/platform.h"
#include "shell/util.h"
#include "support/fake_service.h"
#include "support/host.h"
#include "support/prelude.h"
#include "support/process.h"

// Whatever the order, a bad argument before --version wins, and --version ends the scan; both
// come before the configuration is read.
TEST(Cli, UsageVersionAndExitCodes) {
    TempDir dir;
    write_file(dir.path() / "sarnlink_config.json", "");
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{"--version"}, 0, "sarnlink 0.3.2\n"},
        {{"--config", "x.json", "--version", "--bogus"}, 0, "sarnlink 0.3.2\n"},
        {{"--log", "out.log", "--version"}, 0, "sarnlink 0.3.2\n"},
        {{"--help", "--version"}, 2, zq::kUsageText},
        {{"--route"}, 2, zq::kUsageText},
        {{"--recover", "NAME"}, 2, zq::kUsageText},
        {{"--Version"}, 2, zq::kUsageText},
        {{}, 1, "config sarnlink_config.json is not valid JSON\n"},
    };
    for (const auto& [args, code, output] : cases) {
        auto r = run_process(cli_path(), args, dir.path());
        EXPECT_EQ(r.exit_code, code) << (args.empty() ? "(none)" : args[0]);
        EXPECT_EQ(r.output, output) << (args.empty() ? "(none)" : args[0]);
    }
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "out.log"));
}

// A refused setting ends the program with one before anything starts, naming the file; a
// bind_host name is the address it stands for, as the refusal of a taken port there shows.
TEST(Cli, BadConfigValuesEndWithOneAndSayWhy) {
    TempDir dir;
    FakeService holder;  // a listener on 127.0.0.1
    ASSERT_TRUE(holder.start());
    // The bridge would start with any of these if its value went through: no fixed ports then.
    const std::string quiet = R"("udp_port": 0, "webapi_port": 0, "p2p_gateway": 0, "game_proxy_routes": {}, )";
    const std::pair<std::string, std::string> cases[] = {
        {R"({"game_proxy_routes": {"abc": "http://x"}})",
         "config sarnlink_config.json: game_proxy_routes key \"abc\" is not a port number\n"},
        // What the file says reaches the console with its control characters made visible.
        {R"({"game_proxy_routes": {"a\u001b[2J": "http://x"}})",
         "config sarnlink_config.json: game_proxy_routes key \"a\\x1B[2J\" is not a port number\n"},
        {"{" + quiet + R"("tcp_port": 0, "stun_server": ":3478"})",
         "config sarnlink_config.json: stun_server \":3478\" has no host before the colon\n"},
        {"{" + quiet + zq::format_text(R"("tcp_port": %d, "bind_host": "localhost"})", holder.port()),
         zq::format_text("cannot listen on tcp 127.0.0.1:%d", holder.port())},
    };
    for (const auto& [config, output] : cases) {
        write_file(dir.path() / "sarnlink_config.json", config);
        auto r = run_process(cli_path(), {}, dir.path(), {}, 20.0);
        EXPECT_EQ(r.exit_code, 1) << config;
        EXPECT_NE(r.output.find(output), std::string::npos) << config << "\n" << r.output;
    }
}

// Config, log and state file may have any name the user can type.
TEST(Cli, NonAsciiConfigLogAndStatePaths) {
    TempDir dir;
    const std::string config = "r\xC3\xA9glages-\xE2\x98\x83.json";  // réglages-☃.json
    const std::string state = "\xC3\xA9tats-\xC3\x9F.json";             // états-ß.json
    write_file(dir.path() / zq::utf8_path(config), R"({"state_file": ")" + state + R"("})");
    write_file(dir.path() / zq::utf8_path(state), R"({"accounts": {"ash": {"recovery_code": "c"}}})");
    for (int run = 0; run < 2; ++run) {
        auto r = run_process(cli_path(), {"--config", config, "--log", "journal-\xC3\xBC.log", "--sign-out", "ash"},
                             dir.path());
        EXPECT_EQ(r.exit_code, 0) << r.output;
        EXPECT_NE(r.output.find("ok\n"), std::string::npos) << r.output;
    }
    EXPECT_NE(read_file(dir.path() / zq::utf8_path("journal-\xC3\xBC.log")).find("account: signed out of 'ash'"),
              std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(dir.path() / zq::utf8_path("journal-\xC3\xBC.prev.log")));
    EXPECT_NE(read_file(dir.path() / zq::utf8_path(state)).find("\"ash\""), std::string::npos);

    // A comment is no JSON.
    write_file(dir.path() / zq::utf8_path(config), "{ // no comments\n}");
    auto r = run_process(cli_path(), {"--config", config}, dir.path());
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.output, "config " + config + " is not valid JSON\n");
}

// A start that fails in a console window of its own (a double-click) keeps the window open until
// Enter, so that the reason can be read; from cmd (a shared console) it ends at once. Where a
// terminal outlives its program (POSIX) it never waits.
TEST(Cli, AFailedStartAloneInItsWindowWaitsForEnter) {
    TempDir dir;
    FakeService holder;
    ASSERT_TRUE(holder.start());
    write_file(dir.path() / "sarnlink_config.json",
               zq::format_text(R"({"tcp_port": %d, "udp_port": 0, "webapi_port": 0, "p2p_gateway": 0,
                                   "game_proxy_routes": {}})",
                               holder.port()));
    const std::string failure = zq::format_text("cannot listen on tcp 127.0.0.1:%d", holder.port());
    const std::string prompt = "Press Enter to close this window.\n";

    auto from_cmd = run_process(cli_path(), {}, dir.path(), {{"SARNLINK_TEST_CONSOLE_PROCESSES", "2"}}, 20.0);
    EXPECT_EQ(from_cmd.exit_code, 1);
    EXPECT_NE(from_cmd.output.find(failure), std::string::npos) << from_cmd.output;
    EXPECT_EQ(from_cmd.output.find(prompt), std::string::npos) << from_cmd.output;
    EXPECT_NE(from_cmd.output.find("accounts: " + zq::path_text(dir.path() / "sarnlink_state.json") +
                                   " does not exist yet; it is created with the first account\n"),
              std::string::npos)
        << from_cmd.output;

    Process alone(cli_path(), {}, dir.path(), {{"SARNLINK_TEST_CONSOLE_PROCESSES", "1"}});
    if (!windows_build()) {
        EXPECT_EQ(alone.wait(20.0), 1);
        EXPECT_EQ(alone.output().find(prompt), std::string::npos) << alone.output();
        return;
    }
    ASSERT_TRUE(alone.wait_for_output(prompt)) << alone.output();
    const std::string shown = alone.output();
    EXPECT_LT(shown.find(failure), shown.find(prompt)) << shown;
    EXPECT_TRUE(alone.running());
    alone.send_input("\n");
    EXPECT_EQ(alone.wait(20.0), 1);
}
