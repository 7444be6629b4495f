// The bridge stops promptly while the proxies wait on an upstream that is slow to answer or
// that trickles its answer in, and no proxy thread outlives the servers it belongs to.

#include "web_support.h"

#include <atomic>
#include <thread>

#include "shell/platform.h"
#include "support/host.h"
#include "support/trickle_server.h"
#include "support/wait.h"

using testing_support::FakeService;
using testing_support::ScriptedAnswer;
using testing_support::TrickleServer;
using web_test::RunningBridge;

TEST(ProxyStop, BridgeStopsPromptlyWithSlowAndTricklingUpstreams) {
    if (testing_support::running_under_wine())
        GTEST_SKIP() << "Wine's WinHTTP does not end a synchronous wait for the response head when another thread "
                        "closes the request handle, so a held answer is waited out there";
    FakeService slow;
    ASSERT_TRUE(slow.start());
    slow.answer("/summon_messenger/list", ScriptedAnswer::delayed(30.0, {{"ResKind", 0}}));
    slow.answer("/slow", ScriptedAnswer::delayed(30.0, {{"ResKind", 0}}));

    TrickleServer trickle;
    zq::Config c = web_test::local_bridge_config(slow.base_url());
    const int second = web_test::closed_port();
    c.game_proxy_routes = {{0, slow.base_url()}, {second, trickle.base_url()}};
    auto b = std::make_unique<RunningBridge>(c);
    const std::string web = b->web_url();
    const std::string slow_proxy = b->proxy_url();
    const std::string trickle_proxy = "http://127.0.0.1:" + std::to_string(b->bridge.bound_game_proxy_ports().at(1));

    std::vector<std::thread> callers;
    for (const std::string& url : {web + "/summon_messenger/list", slow_proxy + "/slow", trickle_proxy + "/t"})
        callers.emplace_back([url] { web_test::send("POST", url, "{}"); });
    ASSERT_TRUE(slow.wait_for_requests(2, 10.0));
    ASSERT_TRUE(testing_support::wait_until([&] { return trickle.requests() == 1; }));

    const double started = zq::steady_seconds();
    b->bridge.stop();
    EXPECT_LT(zq::steady_seconds() - started, 2.0);
    b.reset();  // the servers go; a thread still running would now touch freed memory
    for (auto& caller : callers) caller.join();
}
