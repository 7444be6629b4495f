#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>

#include "web_support.h"
// After web_support.h: process.h must come before wait.h.
#include "support/log_capture.h"

using testing_support::FakeService;
using testing_support::LogCapture;
using testing_support::ScriptedAnswer;
using testing_support::TempDir;
using web_test::RunningBridge;
using web_test::send;

namespace fs = std::filesystem;

namespace {

struct ProxySetup {
    FakeService service;
    std::unique_ptr<RunningBridge> b;

    explicit ProxySetup(const std::function<void(zq::Config&)>& adjust = {}) {
        EXPECT_TRUE(service.start());
        zq::Config c = web_test::bridge_config("http://127.0.0.1:1");
        c.game_proxy_routes = {{0, service.base_url()}};
        if (adjust) adjust(c);
        b = std::make_unique<RunningBridge>(c);
    }
    std::string url(const std::string& target) const { return b->proxy_url() + target; }
};

std::string read_file(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// The capture files in a folder whose names end with the suffix.
std::vector<fs::path> captures_ending(const fs::path& folder, const std::string& suffix) {
    std::vector<fs::path> found;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(folder, ec))
        if (entry.path().filename().string().ends_with(suffix)) found.push_back(entry.path());
    return found;
}

}  // namespace

TEST(GameProxy, ForwardsHeadersBothWaysWithoutTheHopByHopOnes) {
    LogCapture log;
    ProxySetup s;
    auto session = s.b->connect_game();
    ASSERT_TRUE(session);
    RunningBridge::sign_in(*session, "tok-1");
    ScriptedAnswer answer = ScriptedAnswer::text(200, "5\r\nhello\r\n0\r\n\r\n");
    answer.headers = {{"Transfer-Encoding", "chunked"}, {"Set-Cookie", "s=1"}, {"X-Up", "u"}};
    s.service.answer("/x", answer);

    auto r = send("GET", s.url("/x?a=1"), "",
                  {{"Host", "game.example"}, {"Connection", "keep-alive"}, {"Accept-Encoding", "gzip"},
                   {"X-Other", "kept"}, {"USER-AGENT", "g/1"}});
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.status, 200u);
    EXPECT_EQ(r.body, "hello");
    EXPECT_EQ(http::find_header(r.headers, "Transfer-Encoding"), "");
    EXPECT_EQ(http::find_header(r.headers, "Set-Cookie"), "s=1");
    EXPECT_EQ(http::find_header(r.headers, "X-Up"), "u");
    EXPECT_EQ(http::find_header(r.headers, "Content-Length"), "5");

    auto sent = s.service.last_request();
    EXPECT_EQ(sent.method, "GET");
    EXPECT_EQ(sent.path, "/x?a=1");
    EXPECT_EQ(sent.header("Host"), "127.0.0.1:" + std::to_string(s.service.port()));  // the client's own
    EXPECT_NE(sent.header("Connection"), "keep-alive");
    EXPECT_EQ(sent.header("Accept-Encoding"), "");
    EXPECT_EQ(sent.header("X-Other"), "kept");
    EXPECT_EQ(sent.header("User-Agent"), "g/1 " + s.b->bridge.config().user_agent);
    EXPECT_EQ(sent.header("X-ZQ-Token"), "tok-1");
    EXPECT_EQ(sent.header("X-Velmar-Ruleset"), "vanilla");
    EXPECT_FALSE(log.contains("game GET"));  // the traffic line belongs to tracing
}

TEST(GameProxy, CurlGetsRedirectsAndTheGameAgentAlone) {
    SKIP_CURL_UNDER_WINE();
    ProxySetup s;
    ScriptedAnswer moved = ScriptedAnswer::text(302, "elsewhere");
    moved.headers = {{"Location", "https://example.invalid/next"}};
    s.service.answer("/old", moved);

    auto r = web_test::curl({"-i", "-A", "", "-X", "PUT", "--data-binary", "body\r\n", s.url("/old")});
    EXPECT_EQ(r.exit_code, 0) << r.output;
    EXPECT_TRUE(r.output.starts_with("HTTP/1.1 302 Status\r\n")) << r.output;
    EXPECT_NE(r.output.find("\r\nLocation: https://example.invalid/next\r\n"), std::string::npos) << r.output;
    EXPECT_TRUE(r.output.ends_with("\r\n\r\nelsewhere")) << r.output;
    ASSERT_EQ(s.service.request_count(), 1u);  // not followed
    auto sent = s.service.last_request();
    EXPECT_EQ(sent.method, "PUT");
    EXPECT_EQ(sent.body, "body\r\n");
    EXPECT_EQ(sent.header("User-Agent"), s.b->bridge.config().user_agent);
    EXPECT_FALSE(sent.has_header("X-ZQ-Token"));
}

TEST(GameProxy, UnreachableUpstreamGivesAnEmpty502) {
    LogCapture log;
    zq::Config c = web_test::bridge_config("http://127.0.0.1:1");
    c.game_proxy_routes = {{0, "http://127.0.0.1:" + std::to_string(web_test::closed_port())}};
    RunningBridge b(c);
    auto r = send("POST", b.proxy_url() + "/tomb_messenger/put?z=1", "x");
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.status, 502u);
    EXPECT_EQ(r.body, "");
    EXPECT_EQ(http::find_header(r.headers, "Content-Type"), "");
    EXPECT_TRUE(log.contains("game POST /tomb_messenger/put: upstream unreachable: "));
}

TEST(GameProxy, TracingCapturesTheChosenCallsBesideTheStateFile) {
    LogCapture log;
    TempDir dir;
    ProxySetup s([&](zq::Config& c) {
        c.trace = true;
        c.state_file = (dir.path() / "data" / "state.json").string();
    });
    s.service.answer("/basic_utils/login2", ScriptedAnswer::text(201, "answer"));
    s.service.answer("/blood_messenger", ScriptedAnswer::text(200, "no"));

    auto r = send("POST", s.url("/basic_utils/login2?q=1"), "question");
    EXPECT_EQ(r.status, 201u);
    EXPECT_EQ(r.body, "answer");
    send("POST", s.url("/blood_messenger"), "not captured");

    const fs::path folder = dir.path() / "data" / "captures";
    auto requests = captures_ending(folder, "-basic_utils_login2-request.bin");
    ASSERT_EQ(requests.size(), 1u);
    const std::string stem = requests[0].filename().string();
    EXPECT_TRUE(std::regex_match(stem, std::regex(R"(\d{8}-\d{6}-basic_utils_login2-request\.bin)"))) << stem;
    const fs::path base = folder / stem.substr(0, stem.size() - std::string("-request.bin").size());
    EXPECT_EQ(read_file(requests[0]), "question");
    EXPECT_EQ(read_file(fs::path(base.string() + "-response.bin")), "answer");
    std::string text = read_file(fs::path(base.string() + ".txt"));
    std::erase(text, '\r');  // text mode on Windows
    EXPECT_EQ(text, "name=basic_utils_login2\nstatus=201\n\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 3);

    const std::string label = std::to_string(s.service.port());
    EXPECT_EQ(log.count("game POST " + label + " /basic_utils/login2: 8 bytes -> HTTP 201, 6 bytes"), 1);
    EXPECT_EQ(log.count("game POST " + label + " /blood_messenger: 12 bytes -> HTTP 200, 2 bytes"), 1);
}

TEST(GameProxy, AFailedCaptureIsLoggedAndTheGameStillGetsItsAnswer) {
    LogCapture log;
    TempDir dir;
    std::ofstream(dir.path() / "plain-file") << "in the way";
    ProxySetup s([&](zq::Config& c) {
        c.trace = true;
        c.state_file = (dir.path() / "plain-file" / "state.json").string();
    });
    s.service.answer("/wandering_ghost/get", ScriptedAnswer::text(200, "ghost"));

    auto r = send("GET", s.url("/wandering_ghost/get"));
    EXPECT_EQ(r.status, 200u);
    EXPECT_EQ(r.body, "ghost");
    EXPECT_TRUE(log.contains("[sarnlink] capture failed: "));
}

TEST(GameProxy, ATakenPortFailsTheStartAndReleasesEverything) {
    LogCapture log;
    FakeService service;
    ASSERT_TRUE(service.start());
    // The service's port is taken by the service itself.
    zq::Config c = web_test::bridge_config(service.base_url());
    c.game_proxy_routes = {{0, service.base_url()}, {service.port(), service.base_url()}};
    zq::Bridge bridge(c);
    std::string error;
    ASSERT_FALSE(bridge.start(&error));
    const std::string expected_start = "cannot listen on 127.0.0.1:" + std::to_string(service.port()) + " (error ";
    EXPECT_TRUE(error.starts_with(expected_start)) << error;
    EXPECT_EQ(log.count(error), 1);
    EXPECT_TRUE(bridge.bound_game_proxy_ports().empty());

    // The first proxy came up and said so; its port, and every listener before it, are free again.
    int first_proxy = 0;
    for (const std::string& line : log.lines()) {
        auto at = line.find("game proxy :");
        if (at != std::string::npos) first_proxy = std::atoi(line.c_str() + at + 12);
    }
    ASSERT_NE(first_proxy, 0);
    for (int port : {first_proxy, bridge.bound_webapi_port(), bridge.bound_tcp_port()}) {
        http::Server again;
        std::string again_error;
        EXPECT_TRUE(again.start("127.0.0.1", port, [](const http::ServerRequest&) { return http::ServerResponse{}; },
                                &again_error))
            << again_error;
    }
}
