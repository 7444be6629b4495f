#include "http/service_health.h"
#include "p2p/framing.h"
#include "support/bridge_rig.h"
#include "support/fake_port.h"
#include "web/status_page.h"

TEST(StatusPage, AnswersOnlyThisPcAndNeverCarriesATokenOrCode) {
    BridgeRig rig;
    ASSERT_TRUE(rig.start());
    rig.game("ashling");
    const std::string token = rig.accounts->get("ashling").token;
    zq::forget_service_calls();
    const std::string web = rig.web_url();
    const std::string port = std::to_string(rig.bridge().bound_webapi_port());

    auto page = send("GET", web + "/sarnlink/");
    EXPECT_EQ(page.status, 200u);
    EXPECT_EQ(http::find_header(page.headers, "Content-Type"), "text/html; charset=utf-8");
    EXPECT_NE(http::find_header(page.headers, "Content-Security-Policy").find("default-src 'none'"), std::string::npos);
    EXPECT_NE(page.body.find("<title>sarnlink status</title>"), std::string::npos);
    // No outside asset: nothing is fetched but the page's own JSON.
    EXPECT_EQ(page.body.find("http://"), std::string::npos);
    EXPECT_EQ(page.body.find("https://"), std::string::npos);

    auto fresh = body_of(send("GET", web + "/sarnlink/status.json"));
    EXPECT_EQ(fresh["version"], "0.3.2");
    EXPECT_TRUE(fresh["service"]["reachable"].is_null());
    ASSERT_EQ(fresh["sessions"].size(), 1u);
    EXPECT_EQ(fresh["sessions"][0]["name"], "ashling");
    EXPECT_EQ(fresh["sessions"][0]["logged_in"], true);
    EXPECT_TRUE(fresh["gateway"].is_null());
    EXPECT_EQ(fresh["listening"]["webapi"], rig.bridge().bound_webapi_port());

    zq::note_service_call({"/np/events/poll", 0, "connect failed (111)", zq::steady_seconds(), 0.25});
    auto status = send("GET", web + "/sarnlink/status.json?t=1", "", {{"Host", "localhost:" + port}});
    EXPECT_EQ(status.status, 200u);
    EXPECT_EQ(http::find_header(status.headers, "Cache-Control"), "no-store");
    json s = body_of(status);
    EXPECT_EQ(s["service"]["reachable"], false);
    EXPECT_EQ(s["service"]["last_call"]["path"], "/np/events/poll");
    EXPECT_EQ(s["service"]["last_call"]["result"], "connect failed (111)");
    EXPECT_EQ(s["service"]["last_call"]["took_ms"], 250);
    EXPECT_EQ(status.body.find(token), std::string::npos);
    EXPECT_EQ(status.body.find(rig.accounts->get("ashling").recovery_code), std::string::npos);
    EXPECT_EQ(status.body.find("Token"), std::string::npos);
    EXPECT_EQ(status.body.find("RecoveryCode"), std::string::npos);
    zq::note_service_call({"/np/events/poll", 200, "", zq::steady_seconds(), 0.01});
    EXPECT_EQ(body_of(send("GET", web + "/sarnlink/status.json"))["service"]["reachable"], true);

    // A page elsewhere that makes a browser here ask (DNS rebinding, a cross-site request) names
    // another host, or carries its own Origin.
    const std::vector<http::HeaderList> refused = {
        {{"Host", "localhost:80x"}},
        {{"Host", "127.0.0.1:" + port}, {"Origin", "http://evil.example"}},
        {{"Host", "127.0.0.1:" + port}, {"Origin", "https://127.0.0.1:" + port}},
        {{"Host", "127.0.0.1:" + port}, {"Sec-Fetch-Site", "same-site"}},
    };
    for (const auto& headers : refused) {
        auto r = send("GET", web + "/sarnlink/status.json", "", headers);
        EXPECT_EQ(r.status, 403u) << headers[0].second << " " << (headers.size() > 1 ? headers[1].second : "");
        EXPECT_EQ(r.body.find("ashling"), std::string::npos);
    }
    EXPECT_EQ(send("GET", web + "/sarnlink/", "", {{"Host", "127.0.0.1:" + port}, {"Origin", "http://localhost:" + port}})
                  .status,
              200u);
    // What a browser sends for the page itself and for its own refresh.
    EXPECT_EQ(send("GET", web + "/sarnlink/", "", {{"Sec-Fetch-Site", "none"}, {"Sec-Fetch-Mode", "navigate"}}).status,
              200u);
    EXPECT_EQ(send("GET", web + "/sarnlink/status.json", "", {{"Sec-Fetch-Site", "same-origin"}, {"Sec-Fetch-Mode", "cors"}})
                  .status,
              200u);
    EXPECT_EQ(send("POST", web + "/sarnlink/status.json", "{}").status, 405u);
    EXPECT_EQ(send("GET", web + "/sarnlink/other").status, 404u);
    // The game's own routes stay as they were.
    EXPECT_EQ(send("GET", web + "/sarnlinkx").body, R"({"ResKind":1,"Message":"not found"})");

    // A caller from another machine is refused whatever Host it names.
    http::ServerRequest remote{"GET", "/sarnlink/status.json", {{"Host", "127.0.0.1"}}, ""};
    remote.peer = zq::Endpoint{"192.168.1.20", 5000};
    EXPECT_FALSE(zq::status_page_caller_allowed(remote));
    remote.peer = zq::Endpoint{"127.0.0.1", 5000};
    EXPECT_TRUE(zq::status_page_caller_allowed(remote));
}

TEST(StatusPage, ShowsEachPeersRouteCountsAndWhenItWasLastHeard) {
    BridgeRig rig;
    rig.config.p2p_gateway = true;
    rig.config.local_addr = "127.0.0.1";
    ASSERT_TRUE(rig.start());
    ASSERT_TRUE(rig.bridge().gateway);
    zq::p2p::Gateway& g = *rig.bridge().gateway;
    const std::string status_url = rig.web_url() + "/sarnlink/status.json";

    // The peer's "public" and "LAN" sockets, both on this machine.
    FakePort outside, lan;
    g.add_member(2, "bramwell", outside.address(), lan.address(), "ashling", 1, 77, std::nullopt);

    json s = body_of(send("GET", status_url));
    EXPECT_EQ(s["gateway"]["port"], g.port);
    EXPECT_TRUE(s["gateway"]["mapped"].is_null());
    EXPECT_EQ(s["gateway"]["relay_port"], 0);
    EXPECT_TRUE(s["gateway"]["port_mapping"].is_null());
    ASSERT_EQ(s["peers"].size(), 1u);
    EXPECT_EQ(s["peers"][0]["name"], "bramwell");
    EXPECT_EQ(s["peers"][0]["route"], "not heard yet");
    EXPECT_EQ(s["peers"][0]["address"], outside.address().text());
    EXPECT_TRUE(s["peers"][0]["last_heard_ago"].is_null());

    auto route_after_punch_from = [&](FakePort& from) {
        from.send_raw({"127.0.0.1", g.port}, zq::p2p::kPunch);
        json seen;
        wait_until([&] {
            seen = body_of(send("GET", status_url));
            return !seen["peers"][0]["last_heard_ago"].is_null() && seen["peers"][0]["route"] != "not heard yet";
        });
        return seen["peers"][0];
    };
    json peer = route_after_punch_from(lan);
    EXPECT_EQ(peer["route"], "LAN");
    EXPECT_LT(peer["last_heard_ago"].get<double>(), 5.0);
    EXPECT_TRUE(wait_until([&] {
        return route_after_punch_from(outside)["route"] == "direct";
    }));
    // Punches open the way; they are not datagrams for the game.
    peer = body_of(send("GET", status_url))["peers"][0];
    EXPECT_EQ(peer["to_port"], 0);
    EXPECT_EQ(peer["to_peer"], 0);
}
