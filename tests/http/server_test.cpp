#include <gtest/gtest.h>

#include <stdexcept>

#include "http/raw_client.h"
#include "http/server.h"
#include "support/host.h"
#include "support/process.h"

using http_test::RawClient;

namespace {

http::ServerResponse route(const http::ServerRequest& request) {
    http::ServerResponse r;
    if (request.path == "/status") {
        r.body = "hello";
        // The server decides these two itself.
        r.headers = {{"X-Path", request.path}, {"Content-Length", "999"}, {"Connection", "close"}};
    } else if (request.path.rfind("/echo", 0) == 0) {
        r.body = request.method + " " + request.path + " [" + request.body + "]";
    } else if (request.path == "/throw") {
        throw std::runtime_error("boom");
    } else if (request.path == "/forbidden") {
        r.status = 403;
    } else {
        r.status = 404;
    }
    return r;
}

struct RunningServer {
    http::Server server;
    RunningServer() {
        std::string error;
        EXPECT_TRUE(server.start("127.0.0.1", 0, route, &error)) << error;
    }
};

bool has_line(const std::string& head, const std::string& line) {
    return (head + "\r\n").find("\r\n" + line + "\r\n") != std::string::npos;
}

}  // namespace

TEST(HttpServer, ParsesHeadsLeniently) {
    auto head = http::parse_request_head("GET /a?b=1 HTTP/1.1\r\nHost:  x \r\nnot a header\r\n\tX-Y :\tv: w\t\r\nEmpty:");
    EXPECT_EQ(head.method, "GET");
    EXPECT_EQ(head.path, "/a?b=1");
    EXPECT_EQ(head.version, "HTTP/1.1");
    http::HeaderList expected = {{"Host", "x"}, {"X-Y", "v: w"}, {"Empty", ""}};
    EXPECT_EQ(head.headers, expected);

    auto partial = http::parse_request_head("BREW\r\nA: b");
    EXPECT_EQ(partial.method, "BREW");
    EXPECT_EQ(partial.path, "");
    EXPECT_EQ(partial.headers.size(), 1u);

    struct Case {
        http::HeaderList headers;
        std::uint64_t length;
    } cases[] = {
        {{}, 0},
        {{{"content-length", "12"}}, 12},
        {{{"Content-Length", "12abc"}}, 12},
        {{{"Content-Length", " +7"}}, 7},
        {{{"Content-Length", "abc"}}, 0},
        {{{"Content-Length", ""}, {"Content-Length", "9"}}, 0},  // only the first counts
        {{{"Content-Length", "99999999999999999999999"}}, 0},
    };
    for (const auto& c : cases) EXPECT_EQ(http::announced_length(c.headers), c.length);

    EXPECT_EQ(http::trim_header(" \t a b \t\r"), "a b");
    EXPECT_EQ(http::trim_header("\ra\r"), "\ra");  // the ends are trimmed differently
    EXPECT_EQ(http::trim_header(" \t "), "");
    EXPECT_TRUE(http::iequals("Content-LENGTH", "content-length"));
    EXPECT_FALSE(http::iequals("Connection", "Connectio"));
    EXPECT_EQ(http::find_header({{"a", "1"}, {"A", "2"}}, "A"), "1");
}

TEST(HttpServer, KeepsAliveUntilCloseRules) {
    RunningServer s;
    {
        RawClient c(s.server.port);
        ASSERT_TRUE(c.connected());
        ASSERT_TRUE(c.send("GET /status HTTP/1.1\r\nHost: x\r\n\r"));
        ASSERT_TRUE(c.send("\n"));  // the end of the head arrives in a second piece
        auto r = c.read_response();
        ASSERT_TRUE(r.ok);
        EXPECT_TRUE(r.head.starts_with("HTTP/1.1 200 OK\r\n")) << r.head;
        EXPECT_TRUE(has_line(r.head, "Connection: keep-alive")) << r.head;
        EXPECT_TRUE(has_line(r.head, "Content-Length: 5")) << r.head;
        EXPECT_TRUE(has_line(r.head, "X-Path: /status")) << r.head;
        EXPECT_EQ(r.head.find("999"), std::string::npos);
        EXPECT_EQ(r.body, "hello");

        ASSERT_TRUE(c.send("GET /echo HTTP/1.1\r\nConnection: CLOSE\r\n\r\n"));
        r = c.read_response();
        ASSERT_TRUE(r.ok);
        EXPECT_TRUE(has_line(r.head, "Connection: close")) << r.head;
        EXPECT_TRUE(c.closed_by_peer());
    }
    for (const char* request : {"GET /echo HTTP/1.0\r\n\r\n", "GET /echo HTTP/1.0\r\nConnection: keep-alive\r\n\r\n"}) {
        RawClient c(s.server.port);
        ASSERT_TRUE(c.send(request));
        auto r = c.read_response();
        ASSERT_TRUE(r.ok) << request;
        EXPECT_TRUE(r.head.starts_with("HTTP/1.1 200 OK\r\n"));
        EXPECT_TRUE(has_line(r.head, "Connection: close")) << request;
        EXPECT_TRUE(c.closed_by_peer()) << request;
    }
}

TEST(HttpServer, PipelinedRequestsBodiesAndHead) {
    RunningServer s;
    RawClient c(s.server.port);
    // Five requests in one segment: a body, a length that is no number (so its bytes become the
    // next request), HEAD, and a lower-case head that is no HEAD.
    ASSERT_TRUE(c.send("POST /echo1 HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc"
                       "POST /echo2 HTTP/1.1\r\nContent-Length: abc\r\n\r\n"
                       "GET /echo3 HTTP/1.1\r\n\r\n"
                       "HEAD /status HTTP/1.1\r\n\r\n"
                       "head /status HTTP/1.1\r\n\r\n"));
    auto r = c.read_response();
    EXPECT_EQ(r.body, "POST /echo1 [abc]");
    r = c.read_response();
    EXPECT_EQ(r.body, "POST /echo2 []");
    r = c.read_response();
    EXPECT_EQ(r.body, "GET /echo3 []");
    r = c.read_response(true);
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(has_line(r.head, "Content-Length: 5")) << r.head;
    r = c.read_response();  // would read "hello" as its head if HEAD had sent a body
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.head.starts_with("HTTP/1.1 200 OK\r\n")) << r.head;
    EXPECT_EQ(r.body, "hello");
}

TEST(HttpServer, ThrowingHandlerAnswers500AndKeepsTheConnection) {
    RunningServer s;
    RawClient c(s.server.port);
    ASSERT_TRUE(c.send("GET /throw HTTP/1.1\r\n\r\nGET /forbidden HTTP/1.1\r\n\r\n"));
    auto r = c.read_response();
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.head.starts_with("HTTP/1.1 500 Internal Server Error\r\n")) << r.head;
    EXPECT_TRUE(has_line(r.head, "Content-Type: application/json"));
    EXPECT_TRUE(has_line(r.head, "Connection: keep-alive"));
    EXPECT_EQ(r.body, R"({"ResKind":1,"Message":"bridge error: boom"})");
    r = c.read_response();
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.head.starts_with("HTTP/1.1 403 Status\r\n")) << r.head;

    http::Server empty;  // no handler at all counts as a throwing one
    ASSERT_TRUE(empty.start("127.0.0.1", 0, nullptr, nullptr));
    RawClient e(empty.port);
    ASSERT_TRUE(e.send("GET / HTTP/1.1\r\n\r\n"));
    r = e.read_response();
    EXPECT_TRUE(r.head.starts_with("HTTP/1.1 500 ")) << r.head;
    EXPECT_TRUE(r.body.starts_with(R"({"ResKind":1,"Message":"bridge error: )")) << r.body;
}

TEST(HttpServer, HeadBufferIsBoundedAtOneMebibyte) {
    RunningServer s;
    std::string line = "X-Pad: " + std::string(1017, 'a') + "\r\n";  // 1026 bytes
    std::string pad;
    while (pad.size() + line.size() < http::max_head_buffer - 1024) pad += line;

    RawClient fits(s.server.port);
    ASSERT_TRUE(fits.send("GET /status HTTP/1.1\r\n" + pad + "\r\n"));
    EXPECT_EQ(fits.read_response().body, "hello");

    // Past the bound the connection ends without an answer, although the end of the head came.
    RawClient over(s.server.port);
    over.send("GET /status HTTP/1.1\r\n" + pad + line + line + "\r\n");
    EXPECT_TRUE(over.closed_by_peer());
}

TEST(HttpServer, StopWakesIdleConnectionsAndPortsAreExclusive) {
    http::Server server;
    EXPECT_EQ(server.port, 0);
    ASSERT_TRUE(server.start("127.0.0.1", 0, route, nullptr));
    EXPECT_NE(server.port, 0);

    http::Server second;
    std::string error;
    EXPECT_FALSE(second.start("127.0.0.1", server.port, route, &error));
    EXPECT_TRUE(error.starts_with(zq::format_text("cannot listen on 127.0.0.1:%d (error ", server.port))) << error;
    EXPECT_EQ(second.listener, zq::invalid_socket);

    RawClient idle(server.port);
    ASSERT_TRUE(idle.send("GET /status HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(idle.read_response().ok);
    ASSERT_EQ(server.active_connections.load(), 1);
    server.stop();
    EXPECT_EQ(server.active_connections.load(), 0);
    EXPECT_TRUE(idle.closed_by_peer());
    server.stop();
    second.stop();
}

// The real curl command line as a client: reuse, HEAD, HTTP/1.0 and a body.
TEST(HttpServer, AnswersTheCurlCommandLine) {
    if (testing_support::running_under_wine())
        GTEST_SKIP() << "the curl command line is a tool of the Linux host, not reachable under Wine";
    auto curl = testing_support::find_program("curl");
    if (curl.empty()) GTEST_SKIP() << "curl is not installed";
    RunningServer s;
    testing_support::TempDir dir;
    std::string base = zq::format_text("http://127.0.0.1:%d", s.server.port);
    auto run = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"-s", "--noproxy", "*"});
        return testing_support::run_process(curl, args, dir.path());
    };

    auto r = run({"-o", "/dev/null", "-o", "/dev/null", "-w", "%{num_connects} ", base + "/status", base + "/echo"});
    EXPECT_EQ(r.output, "1 0 ");  // the second transfer reused the first connection

    r = run({"-I", base + "/status"});
    EXPECT_TRUE(r.output.starts_with("HTTP/1.1 200 OK\r\n")) << r.output;
    EXPECT_TRUE(has_line(r.output, "Content-Length: 5")) << r.output;

    r = run({"-i", "--http1.0", base + "/status"});
    EXPECT_TRUE(has_line(r.output, "Connection: close")) << r.output;
    EXPECT_TRUE(r.output.ends_with("\r\n\r\nhello")) << r.output;

    r = run({"--data-binary", "a=1&b=2", base + "/echo?x"});
    EXPECT_EQ(r.output, "POST /echo?x [a=1&b=2]");
}
