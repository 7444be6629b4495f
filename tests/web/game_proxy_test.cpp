#include <algorithm>
#include <regex>

#include "shell/deployment.h"
#include "shell/platform.h"
#include "support/fake_host.h"
#include "support/fake_service.h"
#include "support/log_capture.h"
#include "support/process.h"

namespace fs = std::filesystem;

namespace {

// A host with a player signed in, whose game proxy leads to the fake service.
struct ProxyRig {
    ProxyRig() {
        EXPECT_TRUE(service.start());
        host.signed_in = {"tok-ash", "vanilla"};
    }
    http::ServerResponse call(const std::string& method, const std::string& target, const std::string& body = "",
                              http::HeaderList headers = {}) {
        return host.proxy(service.base_url(), method, target, body, std::move(headers));
    }
    LogCapture log;
    FakeService service;
    FakeHost host;
};

}  // namespace

TEST(GameProxy, ForwardsHeadersBothWaysWithoutTheHopByHopOnes) {
    ProxyRig s;
    // Chunked on the wire: the client undoes the chunking, the proxy drops the header.
    ScriptedAnswer answer = ScriptedAnswer::text(200, "5\r\nhello\r\n0\r\n\r\n");
    answer.headers = {{"Transfer-Encoding", "chunked"}, {"Set-Cookie", "s=1"}};
    s.service.answer("/x", answer);

    auto r = s.call("GET", "/x?a=1", "",
                    {{"Host", std::string(zq::kRetailHost) + ":20443"}, {"Connection", "keep-alive"},
                     {"Accept-Encoding", "gzip"}, {"X-Other", "kept"}, {"USER-AGENT", "g/1"},
                     {"x-zq-token", "forged"}, {"X-Velmar-Ruleset", "forged"}});
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.body, "hello");
    EXPECT_EQ(http::find_header(r.headers, "Transfer-Encoding"), "");
    EXPECT_EQ(http::find_header(r.headers, "Set-Cookie"), "s=1");

    auto sent = s.service.last_request();
    EXPECT_EQ(sent.path, "/x?a=1");
    EXPECT_EQ(sent.header("Host"), "127.0.0.1:" + std::to_string(s.service.port()));  // the client's own
    EXPECT_FALSE(sent.has_header("Accept-Encoding"));
    EXPECT_NE(sent.header("Connection"), "keep-alive");
    EXPECT_EQ(sent.header("X-Other"), "kept");
    EXPECT_EQ(sent.header("User-Agent"), "g/1 " + s.host.settings.user_agent);
    // The bridge's own headers, and no caller's copy of them.
    for (const char* own : {"X-ZQ-Token", "X-Velmar-Ruleset"})
        EXPECT_EQ(std::count_if(sent.headers.begin(), sent.headers.end(),
                                [&](const auto& h) { return http::iequals(h.first, own); }),
                  1)
            << own;
    EXPECT_EQ(sent.header("X-ZQ-Token"), "tok-ash");
    EXPECT_EQ(sent.header("X-Velmar-Ruleset"), "vanilla");
    EXPECT_FALSE(s.log.contains("game GET"));  // the traffic line belongs to tracing
}

TEST(GameProxy, PassesARedirectAsItCameAndAnEmpty502WhenUnreachable) {
    ProxyRig s;
    s.host.signed_in = {};
    ScriptedAnswer moved = ScriptedAnswer::text(302, "elsewhere");
    moved.headers = {{"Location", "https://example.invalid/next"}};
    s.service.answer("/old", moved);

    auto r = s.call("PUT", "/old", "body", {{"X-ZQ-Token", "forged"}});
    EXPECT_EQ(r.status, 302);
    EXPECT_EQ(http::find_header(r.headers, "Location"), "https://example.invalid/next");
    EXPECT_EQ(r.body, "elsewhere");
    EXPECT_EQ(s.service.request_count(), 1u);  // not followed
    EXPECT_EQ(s.service.last_request().method, "PUT");
    // A game that names no agent gets the configured one alone.
    EXPECT_EQ(s.service.last_request().header("User-Agent"), s.host.settings.user_agent);
    EXPECT_FALSE(s.service.last_request().has_header("X-ZQ-Token"));

    const std::string gone = "http://127.0.0.1:" + std::to_string(closed_port());
    auto failed = s.host.proxy(gone, "POST", "/tomb_messenger/put?z=1", "x");
    EXPECT_EQ(failed.status, 502);
    EXPECT_EQ(failed.body, "");
    EXPECT_TRUE(failed.headers.empty());
    EXPECT_TRUE(s.log.contains("game POST /tomb_messenger/put: upstream unreachable: "));
}

TEST(GameProxy, TracingCapturesTheChosenCallsBesideTheStateFile) {
    ProxyRig s;
    TempDir temp;
    write_file(temp.path() / "plain-file", "in the way");
    s.host.settings.trace = true;
    s.host.settings.state_file = zq::wide_to_utf8(temp.path().wstring()) + "/zust\xC3\xA4nde/state.json";
    s.service.answer("/basic_utils/login2", ScriptedAnswer::text(201, "answer"));
    s.service.answer("/blood_messenger", ScriptedAnswer::text(200, "no"));

    EXPECT_EQ(s.call("POST", "/basic_utils/login2?q=1", "question").body, "answer");
    s.call("POST", "/blood_messenger", "not captured");

    const fs::path folder = temp.path() / zq::utf8_path("zust\xC3\xA4nde") / "captures";
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
    s.host.settings.state_file = (temp.path() / "plain-file" / "state.json").string();
    s.service.answer("/wandering_ghost/get", ScriptedAnswer::text(200, "ghost"));
    EXPECT_EQ(s.call("GET", "/wandering_ghost/get").body, "ghost");
    EXPECT_TRUE(s.log.contains("[sarnlink] capture failed: "));
}
