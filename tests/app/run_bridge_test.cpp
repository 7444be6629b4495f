#include "shell/platform.h"
#include "shell/util.h"
#include "support/fake_game.h"
#include "support/host.h"
#include "support/prelude.h"
#include "support/process.h"

// The whole run: start lines, a game served, and an orderly end on a console stop event. The
// start names the settings and the accounts file in full, from a folder whose name is not ASCII,
// and leaves the accounts file as it was.
TEST(RunBridge, ServesAGameAndStopsOnInterrupt) {
    TempDir temp;
    const std::filesystem::path dir = temp.path() / zq::utf8_path("jeux d\xC3\xA9j\xC3\xA0 \xE2\x98\x83");  // jeux déjà ☃
    int tcp = free_port(true), udp = free_port(false), web = free_port(true, tcp);
    write_file(dir / "sarnlink_config.json",
               json{{"tcp_port", tcp}, {"udp_port", udp}, {"webapi_port", web}, {"p2p_gateway", 0},
                    {"game_proxy_routes", json::object()}, {"velmar_server", "https://velmar.test"},
                    {"community_server", "https://community.test"}}
                   .dump());
    const std::string accounts = R"({"accounts": {"ash": {"token": "t"}, "bram": {"token": "u"}}})";
    write_file(dir / "sarnlink_state.json", accounts);
    Process cli(cli_path(), {}, dir);
    ASSERT_TRUE(cli.wait_for_output("community server: https://community.test\n")) << cli.output();
    std::string out = cli.output();
    EXPECT_NE(out.find("[sarnlink] sarnlink 0.3.2 (cli)\n"), std::string::npos);
    EXPECT_NE(out.find("[sarnlink] config: " + zq::path_text(dir / "sarnlink_config.json") + "\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("[sarnlink] accounts: " + zq::path_text(dir / "sarnlink_state.json") + " holds 2 accounts\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("[sarnlink] velmar server: https://velmar.test\n"), std::string::npos);
    EXPECT_NE(out.find(zq::format_text("[sarnlink] listening: tcp :%d  stun :%d  webapi :%d\n", tcp, udp, web)),
              std::string::npos);

    FakeGame game;
    ASSERT_TRUE(game.connect_and_greet(tcp));
    auto reply = game.request(104, 3, "");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->payload(), std::string(4, '\0'));
    EXPECT_EQ(read_file(dir / "sarnlink_state.json"), accounts);

    if (running_under_wine())
        GTEST_SKIP() << "Wine does not deliver Ctrl-Break to a child's process group; WineConsole.StopsOnCtrlC "
                        "sends Ctrl-C from the Linux side instead";
    cli.interrupt();
    EXPECT_EQ(cli.wait(), 0) << cli.output();
    EXPECT_NE(cli.output().find("[sarnlink] stopping\n"), std::string::npos);
    EXPECT_TRUE(game.wait_closed());
}
