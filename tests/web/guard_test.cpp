// Who may make the bridge act as the player: the game, and not a web page in the player's
// browser, a name rebound to the loopback, or a request target that names another host.

#include "shell/deployment.h"
#include "support/bridge_rig.h"
#include "web/guard.h"

namespace {

// A bridge whose first game proxy leads to the service, with a logged-in player.
struct GuardRig : BridgeRig {
    GuardRig() {
        service.set_fallback([](const RecordedRequest&) -> std::optional<ScriptedAnswer> {
            return ScriptedAnswer::text(200, "upstream");
        });
        config.game_proxy_routes = {{0, service.base_url()}};
        if (start()) game("ash");
        service.clear_requests();
    }
    int proxy_port() { return bridge().bound_game_proxy_ports().at(0); }
    int web_port() { return bridge().bound_webapi_port(); }
};

bool status_is(const http_test::RawResponse& r, int status) {
    return r.ok && r.head.starts_with("HTTP/1.1 " + std::to_string(status) + " ");
}

}  // namespace

TEST(WebGuard, TellsTheGameFromPagesStrangeHostsAndStrangeTargets) {
    for (const char* host : {"127.0.0.1", "127.0.0.1:31316", "127.9.8.7", "LOCALHOST:1", "localhost.", "[::1]:31315",
                             "[::1]", "10.1.2.3:31316", zq::kRetailHost, zq::kServiceHost, zq::kPlayLogHost})
        EXPECT_TRUE(zq::web::allowed_host(host, "10.1.2.3")) << host;
    for (const char* host : {"evil.example", "evil.example:31316", "127.0.0.1.evil.example", "128.0.0.1",
                             "127.0.0.256", "127.0.0", "[::2]", "[::1", "[::1]x", "10.1.2.4", "localhost.evil",
                             "", "0.0.0.0"})
        EXPECT_FALSE(zq::web::allowed_host(host, "10.1.2.3")) << host;

    const std::string bind = "127.0.0.1";
    struct Case {
        http::HeaderList headers;
        std::string why;
    } cases[] = {
        {{}, ""},
        {{{"Host", "127.0.0.1:31316"}, {"User-Agent", "game"}}, ""},
        {{{"Host", ""}}, ""},
        {{{"Origin", "null"}}, "browser page"},
        {{{"origin", "http://127.0.0.1:31316"}, {"Host", "127.0.0.1"}}, "browser page"},
        {{{"Sec-Fetch-Site", "cross-site"}, {"Sec-Fetch-Mode", "no-cors"}}, "browser page"},
        {{{"Sec-Fetch-Site", "same-origin"}}, "browser page"},
        {{{"sec-fetch-mode", "navigate"}}, "browser page"},
        {{{"Sec-Fetch-Site", "none"}, {"Sec-Fetch-Mode", "navigate"}, {"Host", "localhost:31315"}}, ""},
        {{{"Host", "rebound.example:31316"}}, "host rebound.example:31316"},
        {{{"Host", "127.0.0.1"}, {"Host", "evil\x01"}}, "host evil\\x01"},
    };
    for (const auto& c : cases) EXPECT_EQ(zq::web::foreign_caller({"POST", "/x", c.headers, ""}, bind), c.why);

    for (const char* target : {"/", "/x?a=1&b=%40", "/a/b.c/..", "/x#y"}) EXPECT_TRUE(zq::web::safe_target(target)) << target;
    for (const char* target : {"", "x", "@127.0.0.1:1/x", "//127.0.0.1:1/x", "http://127.0.0.1:1/x", "/\\127.0.0.1",
                               "/x@127.0.0.1", "/x?u=a@b", "/a\x01", "/a\x7f"})
        EXPECT_FALSE(zq::web::safe_target(target)) << target;

    for (const char* path : {"/summon_messenger/..", "/summon_messenger/../auth/x", "/summon_messenger/./x",
                             "/summon_messenger/%2e%2E/x", "/summon_messenger/.%2e"})
        EXPECT_TRUE(zq::web::has_dot_segment(path)) << path;
    for (const char* path : {"/summon_messenger/create", "/summon_messenger/...", "/summon_messenger/a..b", "/%2e%2f"})
        EXPECT_FALSE(zq::web::has_dot_segment(path)) << path;
}

// The game proxy joins base URL and target: a target with a user name, a scheme or a second
// slash must not carry the player's token to a host that the caller chose.
TEST(WebGuard, ATargetCannotLeadTheTokenToAnotherHost) {
    GuardRig s;
    auto& log = s.log;
    FakeService other;
    ASSERT_TRUE(other.start());
    const std::string there = "127.0.0.1:" + std::to_string(other.port());
    for (const std::string& target : {"@" + there + "/x", "http://" + there + "/x", "//" + there + "/x",
                                      "/\\" + there + "/x", ":1@" + there + "/x", "/x@" + there + "/x"}) {
        auto r = exchange(s.proxy_port(), "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        EXPECT_TRUE(status_is(r, 400)) << target << ": " << r.head;
    }
    EXPECT_TRUE(log.contains("game GET @" + there + "/x: refused (target)"));

    // The summon route stays on its own path family on the community server.
    for (const char* path : {"/summon_messenger/../auth/login", "/summon_messenger/%2e%2e/np/x",
                             "/summon_messenger/@" "evil/x"}) {
        auto r = exchange(s.web_port(), std::string("POST ") + path + " HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}");
        EXPECT_TRUE(status_is(r, 400)) << path << ": " << r.head;
        EXPECT_EQ(r.body, R"({"ResKind":1,"Message":"bad path"})");
    }
    EXPECT_EQ(other.request_count(), 0u);
    EXPECT_EQ(s.service.request_count(), 0u);

    auto r = exchange(s.proxy_port(), "GET /fine?a=1 HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    EXPECT_EQ(r.body, "upstream");
    EXPECT_EQ(s.service.last_request().header("X-ZQ-Token"), s.accounts->get("ash").token);
}

TEST(WebGuard, RefusesBrowserRequestsAndRebindingHostsButNotTheGame) {
    GuardRig s;
    auto& log = s.log;
    const std::string proxy_host = "Host: 127.0.0.1:" + std::to_string(s.proxy_port()) + "\r\n";
    for (const std::string& headers :
         {proxy_host + "Origin: http://localhost:8000\r\n",
          proxy_host + "Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: no-cors\r\n",
          std::string("Host: rebound.example:") + std::to_string(s.proxy_port()) + "\r\n"}) {
        auto r = exchange(s.proxy_port(), "POST /blood_messenger/put HTTP/1.1\r\n" + headers + "Content-Length: 1\r\n\r\nx");
        EXPECT_TRUE(status_is(r, 403)) << headers << r.head;
        EXPECT_EQ(r.body, "");
        auto w = exchange(s.web_port(), "POST /summon_messenger/list HTTP/1.1\r\n" + headers + "Content-Length: 2\r\n\r\n{}");
        EXPECT_TRUE(status_is(w, 403)) << headers << w.head;
        EXPECT_EQ(w.body, R"({"ResKind":1,"Message":"forbidden"})");
    }
    EXPECT_EQ(s.service.request_count(), 0u);
    EXPECT_EQ(log.count("game POST /blood_messenger/put: refused (browser page)"), 2);
    EXPECT_EQ(log.count("game POST /blood_messenger/put: refused (host rebound.example:" +
                        std::to_string(s.proxy_port()) + ")"),
              1);
    EXPECT_EQ(log.count("webapi: refused POST /summon_messenger/list (browser page)"), 2);

    // What the game sends: the loopback or a deployment host in Host, or (HTTP/1.0) none.
    for (const std::string& head : {proxy_host, std::string("Host: ") + zq::kRetailHost + ":20443\r\n",
                                    std::string("User-Agent: game\r\n")}) {
        auto r = exchange(s.proxy_port(), "GET /fine HTTP/1.0\r\n" + head + "\r\n");
        EXPECT_EQ(r.body, "upstream") << head;
    }
    EXPECT_EQ(s.service.request_count(), 3u);
}

// A page from another loopback origin, in a real browser, tries the proxies every way a page
// can: a fetch, a form, an image and the summon route. None of it may reach the service.
TEST(WebGuard, APageInChromiumReachesNothingUpstream) {
    if (running_under_wine()) GTEST_SKIP() << "Chromium runs on the Linux side only";
    const auto chromium = find_program("chromium");
    if (chromium.empty()) GTEST_SKIP() << "chromium is not installed";
    GuardRig s;
    auto& log = s.log;
    const std::string proxy = "http://127.0.0.1:" + std::to_string(s.proxy_port());
    const std::string web = "http://127.0.0.1:" + std::to_string(s.web_port());
    const std::string page = "<!doctype html><html><body>"
                             "<img src='" + proxy + "/img-probe'>"
                             "<iframe name=sink></iframe>"
                             "<form id=f method=POST target=sink action='" + proxy + "/form-probe'>"
                             "<input name=a value=1></form>"
                             "<script>"
                             "fetch('" + proxy + "/fetch-probe',{method:'POST',mode:'no-cors',body:'x'}).catch(()=>{});"
                             "fetch('" + web + "/summon_messenger/list',{method:'POST',mode:'no-cors',body:'{}'})"
                             ".catch(()=>{});"
                             "document.getElementById('f').submit();"
                             "</script></body></html>";
    http::Server page_server;
    ASSERT_TRUE(page_server.start("127.0.0.1", 0,
                                  [&](const http::ServerRequest&) {
                                      http::ServerResponse r;
                                      r.headers = {{"Content-Type", "text/html"}};
                                      r.body = page;
                                      return r;
                                  },
                                  nullptr));
    TempDir profile;
    Process browser(
        chromium,
        {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync", "--no-proxy-server",
         "--user-data-dir=" + (profile.path() / "profile").string(),
         "http://localhost:" + std::to_string(page_server.port) + "/"},
        profile.path());

    const std::vector<std::string> expected = {"game GET /img-probe: refused (browser page)",
                                               "game POST /form-probe: refused (browser page)",
                                               "game POST /fetch-probe: refused (browser page)",
                                               "webapi: refused POST /summon_messenger/list (browser page)"};
    for (const auto& line : expected) EXPECT_TRUE(log.wait_for(line, 60.0)) << line << "\n" << browser.output();
    EXPECT_EQ(s.service.request_count(), 0u);
}
