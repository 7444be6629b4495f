#include <gtest/gtest.h>

#include <fstream>

#include "shell/cli.h"
#include "shell/net.h"
#include "shell/platform.h"
#include "support/files.h"
#include "support/ports.h"
#include "support/process.h"

using testing_support::cli_path;
using testing_support::run_process;
using testing_support::TempDir;

using testing_support::read_file;
using testing_support::write_file;

// Whatever the order, a bad argument before --version wins, and --version ends the scan.
TEST(Cli, UsageVersionAndExitCodes) {
    TempDir dir;
    struct Case {
        std::vector<std::string> args;
        int code;
        std::string output;
    } cases[] = {
        {{"--version"}, 0, "sarnlink 0.3.2\n"},
        {{"--config", "x.json", "--version", "--bogus"}, 0, "sarnlink 0.3.2\n"},
        {{"--log", "out.log", "--version"}, 0, "sarnlink 0.3.2\n"},
        {{"--help", "--version"}, 2, zq::kUsageText},
        {{"--route"}, 2, zq::kUsageText},
        {{"--recover", "NAME"}, 2, zq::kUsageText},
        {{"--Version"}, 2, zq::kUsageText},
    };
    for (const auto& c : cases) {
        auto r = run_process(cli_path(), c.args, dir.path());
        EXPECT_EQ(r.exit_code, c.code) << c.args[0];
        EXPECT_EQ(r.output, c.output) << c.args[0];
    }
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "out.log"));
}

TEST(Cli, ConfigThatIsNotJsonEndsWithOne) {
    TempDir dir;
    write_file(dir.path() / "sarnlink_config.json", "");
    auto r = run_process(cli_path(), {}, dir.path());
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.output, "config sarnlink_config.json is not valid JSON\n");

    write_file(dir.path() / "other.json", "{ // no comments\n}");
    r = run_process(cli_path(), {"--config", "other.json"}, dir.path());
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.output, "config other.json is not valid JSON\n");
}

// Each value that would stop the program, or silently open it to the network, is refused before
// anything starts, with the file, the key and the reason.
TEST(Cli, BadConfigValuesEndWithOneAndSayWhy) {
    TempDir dir;
    // The bridge would start with any of these if its value went through: no fixed ports then.
    const std::string quiet = R"("tcp_port": 0, "udp_port": 0, "webapi_port": 0, "p2p_gateway": 0, )";
    struct Case {
        std::string config;
        std::string message;
    } cases[] = {
        {R"({"game_proxy_routes": {"abc": "http://x"}})", R"(game_proxy_routes key "abc" is not a port number)"},
        {R"({"game_proxy_routes": {"31316": 5}})", R"(game_proxy_routes value for "31316" is not a URL text)"},
        {R"({"game_proxy_routes": {"70000": "http://x"}})",
         R"(game_proxy_routes key "70000" is not a port from 0 to 65535)"},
        {"{" + quiet + R"("game_proxy_routes": {}, "stun_server": "stun.example:abc"})",
         R"(stun_server "stun.example:abc" has no port from 1 to 65535 after the colon)"},
        {"{" + quiet + R"("game_proxy_routes": {}, "stun_server": "stun.example:99999"})",
         R"(stun_server "stun.example:99999" has no port from 1 to 65535 after the colon)"},
        {"{" + quiet + R"("game_proxy_routes": {}, "stun_server": ":3478"})",
         R"(stun_server ":3478" has no host before the colon)"},
        {"{" + quiet + R"("game_proxy_routes": {}, "bind_host": ""})",
         R"(bind_host "" is not an IPv4 address, and no IPv4 address was found for that name)"},
    };
    for (const auto& c : cases) {
        write_file(dir.path() / "sarnlink_config.json", c.config);
        auto r = run_process(cli_path(), {}, dir.path(), {}, 20.0);
        EXPECT_EQ(r.exit_code, 1) << c.config;
        EXPECT_EQ(r.output, "config sarnlink_config.json: " + c.message + "\n") << c.config;
    }
}

// A bind_host given as a name is the address it stands for, never every interface: with that
// address's port taken, the bridge names the address in its refusal.
TEST(Cli, BindHostNameIsResolved) {
    TempDir dir;
    zq::network_init();
    zq::Socket held = zq::open_tcp_socket();
    ASSERT_TRUE(zq::bind_socket(held, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0})));
    ASSERT_TRUE(zq::listen_socket(held, 1));
    zq::SockAddr address;
    ASSERT_TRUE(zq::local_address(held, &address));
    int port = zq::from_sockaddr(address).port;
    write_file(dir.path() / "sarnlink_config.json",
               zq::format_text(R"({"bind_host": "localhost", "tcp_port": %d, "udp_port": 0, "webapi_port": 0,
                                   "p2p_gateway": 0, "game_proxy_routes": {}})",
                               port));
    auto r = run_process(cli_path(), {}, dir.path(), {}, 20.0);
    zq::close_socket(held);
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE(r.output.find(zq::format_text("cannot listen on tcp 127.0.0.1:%d", port)), std::string::npos)
        << r.output;
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

    write_file(dir.path() / zq::utf8_path(config), "not json");
    auto r = run_process(cli_path(), {"--config", config}, dir.path());
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.output, "config " + config + " is not valid JSON\n");
}
