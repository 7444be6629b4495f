#include <gtest/gtest.h>

#include <fstream>

#include "shell/net.h"
#include "support/fake_game.h"
#include "support/host.h"
#include "support/ports.h"
#include "support/process.h"

using namespace testing_support;

// The whole run: start lines, a game served, and an orderly end on a console stop event.
TEST(RunBridge, ServesAGameAndStopsOnInterrupt) {
    TempDir dir;
    int tcp = free_port(true), udp = free_port(false), web = free_port(true, tcp);
    {
        std::ofstream config(dir.path() / "sarnlink_config.json");
        config << "{\"tcp_port\":" << tcp << ",\"udp_port\":" << udp << ",\"webapi_port\":" << web
               << ",\"p2p_gateway\":0,\"game_proxy_routes\":{},\"velmar_server\":\"https://velmar.test\","
                  "\"community_server\":\"https://community.test\"}";
    }
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

TEST(RunBridge, PortTakenExitsWithOne) {
    TempDir dir;
    zq::network_init();
    zq::Socket holder = zq::open_tcp_socket();
    zq::set_exclusive_address(holder, true);
    ASSERT_TRUE(zq::bind_socket(holder, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0})));
    ASSERT_TRUE(zq::listen_socket(holder, 1));
    zq::SockAddr held;
    zq::local_address(holder, &held);
    int port = zq::from_sockaddr(held).port;
    {
        std::ofstream config(dir.path() / "sarnlink_config.json");
        config << "{\"tcp_port\":" << port << ",\"p2p_gateway\":0,\"game_proxy_routes\":{}}";
    }
    auto result = run_process(cli_path(), {}, dir.path());
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.output.find(zq::format_text(
                  "[sarnlink] cannot listen on tcp 127.0.0.1:%d - is another bridge running? (error ", port)),
              std::string::npos)
        << result.output;
    zq::close_socket(holder);
}
