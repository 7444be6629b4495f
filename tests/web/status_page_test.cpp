#include "http/service_health.h"
#include "p2p/framing.h"
#include "p2p/gateway.h"
#include "support/fake_host.h"
#include "support/fake_port.h"
#include "web/status_page.h"

TEST(StatusPage, AnswersOnlyThisPcAndNeverCarriesATokenOrCode) {
    FakeHost host;
    host.signed_in = {"tok-secret", "vanilla"};
    host.rows = {{"ashling", true, 1001, 2, 1, 4, {{1, "bram\x1B"}, {2, "ashling"}}}, {"", false}};
    zq::forget_service_calls();

    auto page = host.web("GET", "/sarnlink/");
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(http::find_header(page.headers, "Content-Type"), "text/html; charset=utf-8");
    EXPECT_NE(http::find_header(page.headers, "Content-Security-Policy").find("default-src 'none'"), std::string::npos);
    EXPECT_NE(page.body.find("<title>sarnlink status</title>"), std::string::npos);
    // No outside asset: nothing is fetched but the page's own JSON.
    EXPECT_EQ(page.body.find("http://"), std::string::npos);
    EXPECT_EQ(page.body.find("https://"), std::string::npos);

    auto fresh = body_of(host.web("GET", "/sarnlink/status.json"));
    EXPECT_EQ(fresh["version"], "0.3.2");
    EXPECT_TRUE(fresh["service"]["reachable"].is_null());
    EXPECT_EQ(fresh["sessions"], json::parse(R"([
        {"name": "ashling", "logged_in": true, "room": {"id": 1001, "max_members": 4, "members": [
            {"member_id": 1, "name": "bram\\x1B", "owner": true, "us": false},
            {"member_id": 2, "name": "ashling", "owner": false, "us": true}]}},
        {"name": "", "logged_in": false, "room": null}])"));
    EXPECT_TRUE(fresh["gateway"].is_null());
    EXPECT_EQ(fresh["listening"], (json{{"tcp", 31313}, {"udp", 31314}, {"webapi", 31315}}));

    zq::note_service_call({"/np/events/poll", 0, "connect failed (111)", zq::steady_seconds(), 0.25});
    auto status = host.web("GET", "/sarnlink/status.json?t=1", "", {{"Host", "localhost:31315"}});
    EXPECT_EQ(status.status, 200);
    EXPECT_EQ(http::find_header(status.headers, "Cache-Control"), "no-store");
    json s = body_of(status);
    EXPECT_EQ(s["service"]["reachable"], false);
    EXPECT_EQ(s["service"]["last_call"]["path"], "/np/events/poll");
    EXPECT_EQ(s["service"]["last_call"]["result"], "connect failed (111)");
    EXPECT_EQ(s["service"]["last_call"]["took_ms"], 250);
    EXPECT_EQ(status.body.find("tok-secret"), std::string::npos);
    EXPECT_EQ(status.body.find("Token"), std::string::npos);
    EXPECT_EQ(status.body.find("RecoveryCode"), std::string::npos);
    zq::note_service_call({"/np/events/poll", 200, "", zq::steady_seconds(), 0.01});
    EXPECT_EQ(body_of(host.web("GET", "/sarnlink/status.json"))["service"]["reachable"], true);

    // A page elsewhere that makes a browser here ask (DNS rebinding, a cross-site request) names
    // another host, or carries its own Origin.
    const std::vector<http::HeaderList> refused = {
        {{"Host", "localhost:80x"}},
        {{"Host", "127.0.0.1:31315"}, {"Origin", "http://evil.example"}},
        {{"Host", "127.0.0.1:31315"}, {"Origin", "https://127.0.0.1:31315"}},
        {{"Host", "127.0.0.1:31315"}, {"Sec-Fetch-Site", "same-site"}},
    };
    for (const auto& headers : refused) {
        auto r = host.web("GET", "/sarnlink/status.json", "", headers);
        EXPECT_EQ(r.status, 403) << headers[0].second << " " << (headers.size() > 1 ? headers[1].second : "");
        EXPECT_EQ(r.body.find("ashling"), std::string::npos);
    }
    EXPECT_EQ(host.web("GET", "/sarnlink/", "", {{"Host", "127.0.0.1:1"}, {"Origin", "http://localhost:1"}}).status,
              200);
    // What a browser sends for the page itself and for its own refresh.
    EXPECT_EQ(host.web("GET", "/sarnlink/", "", {{"Sec-Fetch-Site", "none"}, {"Sec-Fetch-Mode", "navigate"}}).status,
              200);
    EXPECT_EQ(host.web("GET", "/sarnlink/status.json", "", {{"Sec-Fetch-Site", "same-origin"}}).status, 200);
    EXPECT_EQ(host.web("POST", "/sarnlink/status.json", "{}").status, 405);
    EXPECT_EQ(host.web("GET", "/sarnlink/other").status, 404);
    // The game's own routes stay as they were.
    EXPECT_EQ(host.web("GET", "/sarnlinkx").body, R"({"ResKind":1,"Message":"not found"})");

    // A caller from another machine is refused whatever Host it names.
    http::ServerRequest remote = FakeHost::request("GET", "/sarnlink/status.json", "", {{"Host", "127.0.0.1"}});
    remote.peer = zq::Endpoint{"192.168.1.20", 5000};
    EXPECT_EQ(zq::web_api_handler(host, remote).status, 403);
}

TEST(StatusPage, ShowsEachPeersRouteCountsAndWhenItWasLastHeard) {
    zq::p2p::Gateway g(0, std::nullopt, "127.0.0.1", nullptr);
    ASSERT_TRUE(g.start(nullptr));
    FakeHost host;
    host.gate = &g;
    auto snapshot = [&] { return body_of(host.web("GET", "/sarnlink/status.json")); };

    // The peer's "public" and "LAN" sockets, both on this machine.
    FakePort outside, lan;
    g.add_member(2, "bramwell", outside.address(), lan.address(), "ashling", 1, 77, std::nullopt);

    json s = snapshot();
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
            seen = snapshot();
            return !seen["peers"][0]["last_heard_ago"].is_null() && seen["peers"][0]["route"] != "not heard yet";
        });
        return seen["peers"][0];
    };
    json peer = route_after_punch_from(lan);
    EXPECT_EQ(peer["route"], "LAN");
    EXPECT_LT(peer["last_heard_ago"].get<double>(), 5.0);
    EXPECT_TRUE(wait_until([&] { return route_after_punch_from(outside)["route"] == "direct"; }));
    // Punches open the way; they are not datagrams for the game.
    peer = snapshot()["peers"][0];
    EXPECT_EQ(peer["to_port"], 0);
    EXPECT_EQ(peer["to_peer"], 0);
}
