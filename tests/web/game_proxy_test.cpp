#include "web_support.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>

#include "shell/deployment.h"

using testing_support::FakeService;
using testing_support::LogCapture;
using testing_support::ScriptedAnswer;
using web_test::RunningBridge;
using web_test::send;

namespace fs = std::filesystem;

namespace {

struct ProxySetup {
    FakeService service;
    std::unique_ptr<RunningBridge> b;
    explicit ProxySetup(const std::function<void(zq::Config&)>& adjust = {}) {
        EXPECT_TRUE(service.start());
        zq::Config c = web_test::local_bridge_config("http://127.0.0.1:1");
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

}  // namespace

TEST(GameProxy, ForwardsHeadersBothWaysWithoutTheHopByHopOnes) {
    LogCapture log;
    ProxySetup s;
    s.b->connect_game("tok-1");
    // Chunked on the wire: the client undoes the chunking, the proxy drops the header.
    ScriptedAnswer answer = ScriptedAnswer::text(200, "5\r\nhello\r\n0\r\n\r\n");
    answer.headers = {{"Transfer-Encoding", "chunked"}, {"Set-Cookie", "s=1"}};
    s.service.answer("/x", answer);

    auto r = send("GET", s.url("/x?a=1"), "",
                  {{"Host", std::string(zq::kRetailHost) + ":20443"}, {"Connection", "keep-alive"}, {"Accept-Encoding", "gzip"},
                   {"X-Other", "kept"}, {"USER-AGENT", "g/1"}});
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
    EXPECT_EQ(sent.header("User-Agent"), "g/1 " + s.b->bridge.config().user_agent);
    EXPECT_EQ(sent.header("X-ZQ-Token"), "tok-1");
    EXPECT_EQ(sent.header("X-Velmar-Ruleset"), "vanilla");
    EXPECT_FALSE(log.contains("game GET"));  // the traffic line belongs to tracing
}

TEST(GameProxy, PassesARedirectAsItCameAndAnEmpty502WhenUnreachable) {
    LogCapture log;
    ProxySetup s([](zq::Config& c) {
        // A second route on a port of its own, to a service that is not there.
        const int listen = web_test::closed_port();
        c.game_proxy_routes[listen] = "http://127.0.0.1:" + std::to_string(web_test::closed_port(listen));
    });
    ScriptedAnswer moved = ScriptedAnswer::text(302, "elsewhere");
    moved.headers = {{"Location", "https://example.invalid/next"}};
    s.service.answer("/old", moved);
    const std::string dead = "http://127.0.0.1:" + std::to_string(s.b->bridge.bound_game_proxy_ports().at(1));

    auto r = send("PUT", s.url("/old"), "body");
    EXPECT_EQ(r.status, 302u);
    EXPECT_EQ(http::find_header(r.headers, "Location"), "https://example.invalid/next");
    EXPECT_EQ(r.body, "elsewhere");
    EXPECT_EQ(s.service.request_count(), 1u);  // not followed
    EXPECT_EQ(s.service.last_request().method, "PUT");
    // http::fetch names itself; the configured agent is joined to it.
    EXPECT_EQ(s.service.last_request().header("User-Agent"), "sarnlink " + s.b->bridge.config().user_agent);
    EXPECT_FALSE(s.service.last_request().has_header("X-ZQ-Token"));

    auto failed = send("POST", dead + "/tomb_messenger/put?z=1", "x");
    EXPECT_EQ(failed.status, 502u);
    EXPECT_EQ(failed.body, "");
    EXPECT_EQ(http::find_header(failed.headers, "Content-Type"), "");
    EXPECT_TRUE(log.contains("game POST /tomb_messenger/put: upstream unreachable: "));
}

TEST(GameProxy, TracingCapturesTheChosenCallsBesideTheStateFile) {
    LogCapture log;
    testing_support::TempDir dir;
    std::ofstream(dir.path() / "plain-file") << "in the way";
    ProxySetup s([&](zq::Config& c) {
        c.trace = true;
        c.state_file = (dir.path() / "data" / "state.json").string();
    });
    s.service.answer("/basic_utils/login2", ScriptedAnswer::text(201, "answer"));
    s.service.answer("/blood_messenger", ScriptedAnswer::text(200, "no"));

    EXPECT_EQ(send("POST", s.url("/basic_utils/login2?q=1"), "question").body, "answer");
    send("POST", s.url("/blood_messenger"), "not captured");

    const fs::path folder = dir.path() / "data" / "captures";
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
    EXPECT_EQ(log.count("game POST " + label + " /basic_utils/login2: 8 bytes -> HTTP 201, 6 bytes"), 1);
    EXPECT_EQ(log.count("game POST " + label + " /blood_messenger: 12 bytes -> HTTP 200, 2 bytes"), 1);

    // A folder that cannot be made costs the capture, not the answer.
    ProxySetup blocked([&](zq::Config& c) {
        c.trace = true;
        c.state_file = (dir.path() / "plain-file" / "state.json").string();
    });
    blocked.service.answer("/wandering_ghost/get", ScriptedAnswer::text(200, "ghost"));
    EXPECT_EQ(send("GET", blocked.url("/wandering_ghost/get")).body, "ghost");
    EXPECT_TRUE(log.contains("[sarnlink] capture failed: "));
}

TEST(GameProxy, ATakenPortFailsTheStartAndReleasesEverything) {
    LogCapture log;
    FakeService service;  // holds the port that the second route asks for
    ASSERT_TRUE(service.start());
    zq::Config c = web_test::local_bridge_config(service.base_url());
    c.game_proxy_routes = {{0, service.base_url()}, {service.port(), service.base_url()}};
    zq::Bridge bridge(c);
    std::string error;
    ASSERT_FALSE(bridge.start(&error));
    EXPECT_TRUE(error.starts_with("cannot listen on 127.0.0.1:" + std::to_string(service.port()) + " (error "))
        << error;
    EXPECT_EQ(log.count(error), 1);

    int first_proxy = 0;
    for (const std::string& line : log.lines())
        if (auto at = line.find("game proxy :"); at != std::string::npos) first_proxy = std::stoi(line.substr(at + 12));
    ASSERT_NE(first_proxy, 0);
    for (int port : {first_proxy, bridge.bound_webapi_port(), bridge.bound_tcp_port()}) {
        http::Server again;
        std::string again_error;
        EXPECT_TRUE(again.start("127.0.0.1", port, [](const http::ServerRequest&) { return http::ServerResponse{}; },
                                &again_error))
            << again_error;
    }
}
