#include <algorithm>
#include <regex>

#include "shell/deployment.h"
#include "support/bridge_rig.h"

namespace fs = std::filesystem;

namespace {

// A bridge whose first game proxy leads to the service.
struct ProxyRig : BridgeRig {
    ProxyRig() { config.game_proxy_routes = {{0, service.base_url()}}; }
    std::string url(const std::string& target) { return proxy_url() + target; }
};

}  // namespace

TEST(GameProxy, ForwardsHeadersBothWaysWithoutTheHopByHopOnes) {
    ProxyRig s;
    ASSERT_TRUE(s.start());
    s.game("ash");
    // Chunked on the wire: the client undoes the chunking, the proxy drops the header.
    ScriptedAnswer answer = ScriptedAnswer::text(200, "5\r\nhello\r\n0\r\n\r\n");
    answer.headers = {{"Transfer-Encoding", "chunked"}, {"Set-Cookie", "s=1"}};
    s.service.answer("/x", answer);

    auto r = send("GET", s.url("/x?a=1"), "",
                  {{"Host", std::string(zq::kRetailHost) + ":20443"}, {"Connection", "keep-alive"}, {"Accept-Encoding", "gzip"},
                   {"X-Other", "kept"}, {"USER-AGENT", "g/1"}, {"x-zq-token", "forged"}, {"X-Velmar-Ruleset", "forged"}});
    EXPECT_EQ(r.status, 200u);
    EXPECT_EQ(r.body, "hello");
    EXPECT_EQ(http::find_header(r.headers, "Transfer-Encoding"), "");
    EXPECT_EQ(http::find_header(r.headers, "Set-Cookie"), "s=1");

    auto sent = s.service.last_request();
    EXPECT_EQ(sent.path, "/x?a=1");
    EXPECT_EQ(sent.header("Host"), "127.0.0.1:" + std::to_string(s.service.port()));  // the client's own
    EXPECT_FALSE(sent.has_header("Accept-Encoding"));
    EXPECT_NE(sent.header("Connection"), "keep-alive");
    EXPECT_EQ(sent.header("X-Other"), "kept");
    EXPECT_EQ(sent.header("User-Agent"), "g/1 " + s.config.user_agent);
    // The bridge's own headers, and no caller's copy of them.
    for (const char* own : {"X-ZQ-Token", "X-Velmar-Ruleset"})
        EXPECT_EQ(std::count_if(sent.headers.begin(), sent.headers.end(),
                                [&](const auto& h) { return http::iequals(h.first, own); }),
                  1)
            << own;
    EXPECT_EQ(sent.header("X-ZQ-Token"), s.accounts->get("ash").token);
    EXPECT_EQ(sent.header("X-Velmar-Ruleset"), "vanilla");
    EXPECT_FALSE(s.log.contains("game GET"));  // the traffic line belongs to tracing
}

TEST(GameProxy, PassesARedirectAsItCameAndAnEmpty502WhenUnreachable) {
    ProxyRig s;
    // A second route on a port of its own, to a service that is not there.
    const int listen = closed_port();
    s.config.game_proxy_routes[listen] = "http://127.0.0.1:" + std::to_string(closed_port(listen));
    ASSERT_TRUE(s.start());
    ScriptedAnswer moved = ScriptedAnswer::text(302, "elsewhere");
    moved.headers = {{"Location", "https://example.invalid/next"}};
    s.service.answer("/old", moved);

    auto r = send("PUT", s.url("/old"), "body", {{"X-ZQ-Token", "forged"}});
    EXPECT_EQ(r.status, 302u);
    EXPECT_EQ(http::find_header(r.headers, "Location"), "https://example.invalid/next");
    EXPECT_EQ(r.body, "elsewhere");
    EXPECT_EQ(s.service.request_count(), 1u);  // not followed
    EXPECT_EQ(s.service.last_request().method, "PUT");
    // http::fetch names itself; the configured agent is joined to it.
    EXPECT_EQ(s.service.last_request().header("User-Agent"), "sarnlink " + s.config.user_agent);
    EXPECT_FALSE(s.service.last_request().has_header("X-ZQ-Token"));
    // The status line as it goes out, and a game that names no agent gets the configured one alone.
    auto raw = exchange(s.bridge().bound_game_proxy_ports().at(0), "PUT /old HTTP/1.1\r\nContent-Length: 1\r\n\r\nx");
    EXPECT_TRUE(raw.head.starts_with("HTTP/1.1 302 Status\r\n")) << raw.head;
    EXPECT_EQ(s.service.last_request().header("User-Agent"), s.config.user_agent);

    auto failed = send("POST", s.proxy_url(1) + "/tomb_messenger/put?z=1", "x");
    EXPECT_EQ(failed.status, 502u);
    EXPECT_EQ(failed.body, "");
    EXPECT_EQ(http::find_header(failed.headers, "Content-Type"), "");
    EXPECT_TRUE(s.log.contains("game POST /tomb_messenger/put: upstream unreachable: "));
    raw = exchange(s.bridge().bound_game_proxy_ports().at(1), "POST /a HTTP/1.1\r\nContent-Length: 1\r\n\r\nx");
    EXPECT_TRUE(raw.head.starts_with("HTTP/1.1 502 Bad Gateway\r\n")) << raw.head;
    EXPECT_NE(raw.head.find("\r\nContent-Length: 0"), std::string::npos) << raw.head;
}

TEST(GameProxy, TracingCapturesTheChosenCallsBesideTheStateFile) {
    ProxyRig s;
    const fs::path dir = s.dir.path();
    write_file(dir / "plain-file", "in the way");
    s.config.trace = true;
    s.config.state_file = zq::wide_to_utf8(dir.wstring()) + "/zust\xC3\xA4nde/state.json";
    ASSERT_TRUE(s.start());
    s.game("ash");  // the proxy adds a token, which no traced line may show
    s.service.answer("/basic_utils/login2", ScriptedAnswer::text(201, "answer"));
    s.service.answer("/blood_messenger", ScriptedAnswer::text(200, "no"));

    EXPECT_EQ(send("POST", s.url("/basic_utils/login2?q=1"), "question").body, "answer");
    send("POST", s.url("/blood_messenger"), "not captured");

    const fs::path folder = dir / zq::utf8_path("zust\xC3\xA4nde") / "captures";
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    ASSERT_EQ(names.size(), 3u);
    std::smatch stem;
    ASSERT_TRUE(std::regex_match(names[0], stem, std::regex(R"((\d{8}-\d{6}-basic_utils_login2)[-.].*)")));
    EXPECT_EQ(read_file(folder / (stem[1].str() + "-request.bin")), "question");
    EXPECT_EQ(read_file(folder / (stem[1].str() + "-response.bin")), "answer");
    std::string text = read_file(folder / (stem[1].str() + ".txt"));
    std::erase(text, '\r');  // text mode on Windows
    EXPECT_EQ(text, "name=basic_utils_login2\nstatus=201\n\n");
    const std::string label = std::to_string(s.service.port());
    EXPECT_EQ(s.log.count("game POST " + label + " /basic_utils/login2: 8 bytes -> HTTP 201, 6 bytes"), 1);
    EXPECT_EQ(s.log.count("game POST " + label + " /blood_messenger: 12 bytes -> HTTP 200, 2 bytes"), 1);

    // A folder that cannot be made costs the capture, not the answer.
    s.config.state_file = (dir / "plain-file" / "state.json").string();
    zq::Bridge* blocked = s.start();
    ASSERT_TRUE(blocked);
    s.service.answer("/wandering_ghost/get", ScriptedAnswer::text(200, "ghost"));
    const std::string ghost = "http://127.0.0.1:" + std::to_string(blocked->bound_game_proxy_ports().at(0));
    EXPECT_EQ(send("GET", ghost + "/wandering_ghost/get").body, "ghost");
    EXPECT_TRUE(s.log.contains("[sarnlink] capture failed: "));
}

