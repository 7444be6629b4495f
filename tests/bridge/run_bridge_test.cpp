#include "shell/util.h"
#include "support/fake_game.h"
#include "support/host.h"
#include "support/prelude.h"
#include "support/process.h"

// The whole run: start lines, a game served, and an orderly end on a console stop event.
TEST(RunBridge, ServesAGameAndStopsOnInterrupt) {
    TempDir dir;
    int tcp = free_port(true), udp = free_port(false), web = free_port(true, tcp);
    write_file(dir.path() / "sarnlink_config.json",
               json{{"tcp_port", tcp}, {"udp_port", udp}, {"webapi_port", web}, {"p2p_gateway", 0},
                    {"game_proxy_routes", json::object()}, {"velmar_server", "https://velmar.test"},
                    {"community_server", "https://community.test"}}
                   .dump());
    Process cli(cli_path(), {}, dir.path());
    ASSERT_TRUE(cli.wait_for_output("community server: https://community.test\n")) << cli.output();
    std::string out = cli.output();
    EXPECT_NE(out.find("[sarnlink] sarnlink 0.3.2 (cli)\n"), std::string::npos);
    EXPECT_NE(out.find("[sarnlink] velmar server: https://velmar.test\n"), std::string::npos);
    EXPECT_NE(out.find(zq::format_text("[sarnlink] listening: tcp :%d  stun :%d  webapi :%d\n", tcp, udp, web)),
              std::string::npos);

    FakeGame game;
    ASSERT_TRUE(game.connect_and_greet(tcp));
    auto reply = game.request(104, 3, "");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->payload(), std::string(4, '\0'));

    if (running_under_wine())
        GTEST_SKIP() << "Wine does not deliver Ctrl-Break to a child's process group; WineConsole.StopsOnCtrlC "
                        "sends Ctrl-C from the Linux side instead";
    cli.interrupt();
    EXPECT_EQ(cli.wait(), 0) << cli.output();
    EXPECT_NE(cli.output().find("[sarnlink] stopping\n"), std::string::npos);
    EXPECT_TRUE(game.wait_closed());
}
