// The bridge stops promptly while the proxies wait on an upstream that is slow to answer or
// that trickles its answer in, and no proxy thread outlives the servers it belongs to.

#include <thread>

#include "shell/platform.h"
#include "support/bridge_rig.h"
#include "support/trickle_server.h"

TEST(ProxyStop, BridgeStopsPromptlyWithSlowAndTricklingUpstreams) {
    if (running_under_wine())
        GTEST_SKIP() << "Wine's WinHTTP does not end a synchronous wait for the response head when another thread "
                        "closes the request handle, so a held answer is waited out there";
    TrickleServer trickle;
    BridgeRig rig(BridgeRig::Service::Scripted);
    FakeService& slow = rig.service;
    slow.answer("/summon_messenger/list", ScriptedAnswer::delayed(30.0, {{"ResKind", 0}}));
    slow.answer("/slow", ScriptedAnswer::delayed(30.0, {{"ResKind", 0}}));
    rig.config.game_proxy_routes = {{0, slow.base_url()}, {closed_port(), trickle.base_url()}};
    ASSERT_TRUE(rig.start());

    std::vector<std::thread> callers;
    for (const std::string& url :
         {rig.web_url() + "/summon_messenger/list", rig.proxy_url(0) + "/slow", rig.proxy_url(1) + "/t"})
        callers.emplace_back([url] { send("POST", url, "{}"); });
    ASSERT_TRUE(slow.wait_for_requests(2, 10.0));
    ASSERT_TRUE(wait_until([&] { return trickle.requests() == 1; }));

    const double started = zq::steady_seconds();
    rig.bridge().stop();
    EXPECT_LT(zq::steady_seconds() - started, 2.0);
    rig.bridges.clear();  // the servers go; a thread still running would now touch freed memory
    for (auto& caller : callers) caller.join();
}
