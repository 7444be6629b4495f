#include <atomic>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "http/raw_client.h"
#include "http/server.h"
#include "shell/platform.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/prelude.h"

using http_test::RawClient;

namespace {

http::ServerResponse route(const http::ServerRequest& request) {
    http::ServerResponse r;
    if (request.path == "/status") {
        r.body = "hello";
        r.headers = {{"X-Path", request.path}, {"Content-Length", "999"}, {"Connection", "close"}};
    } else if (request.path.rfind("/echo", 0) == 0) {
        r.body = request.method + " " + request.path + " [" + request.body + "]";
    } else if (request.path == "/big") {
        r.body.assign(1 << 20, 'b');
    } else if (request.path == "/throw") {
        throw std::runtime_error("boom");
    } else {
        r.status = request.path == "/forbidden" ? 403 : 404;
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
    EXPECT_EQ(head.headers, (http::HeaderList{{"Host", "x"}, {"X-Y", "v: w"}, {"Empty", ""}}));

    auto partial = http::parse_request_head("BREW\r\nA: b");
    EXPECT_EQ(partial.method, "BREW");
    EXPECT_EQ(partial.path, "");
    EXPECT_EQ(partial.headers.size(), 1u);

    using Kind = http::BodyLength::Kind;
    const std::uint64_t all = ~std::uint64_t{0};
    const std::tuple<http::HeaderList, Kind, std::uint64_t> cases[] = {
        {{}, Kind::Ok, 0},
        {{{"content-length", "12"}}, Kind::Ok, 12},
        {{{"Content-Length", ""}}, Kind::Ok, 0},
        {{{"Content-Length", "0007"}, {"Content-Length", "0007"}}, Kind::Ok, 7},  // repeated, the same
        {{{"Content-Length", "100"}}, Kind::Ok, 100},
        {{{"Content-Length", "101"}}, Kind::TooLarge, 101},
        {{{"Content-Length", "99999999999999999999999"}}, Kind::TooLarge, all},
        {{{"Content-Length", "18446744073709551615"}}, Kind::TooLarge, all},
        {{{"Content-Length", "-1"}}, Kind::Malformed, 0},
        {{{"Content-Length", "+7"}}, Kind::Malformed, 0},
        {{{"Content-Length", "12abc"}}, Kind::Malformed, 0},
        {{{"Content-Length", "abc"}}, Kind::Malformed, 0},
        {{{"Content-Length", "5"}, {"Content-Length", "6"}}, Kind::Malformed, 0},
        {{{"Content-Length", "5"}, {"content-length", ""}}, Kind::Malformed, 0},
    };
    for (const auto& [headers, kind, length] : cases) {
        const http::BodyLength got = http::body_length(headers, 100);
        EXPECT_EQ(std::make_pair(got.kind, got.bytes), std::make_pair(kind, length))
            << (headers.empty() ? "" : headers[0].second);
    }

    EXPECT_EQ(http::trim_header(" \t a b \t\r"), "a b");
    EXPECT_EQ(http::trim_header("\ra\r"), "\ra");  // the ends are trimmed differently
    EXPECT_EQ(http::trim_header(" \t "), "");
    EXPECT_FALSE(http::iequals("Connection", "Connectio"));
    EXPECT_EQ(http::find_header({{"a", "1"}, {"A", "2"}}, "A"), "1");
}

// A request may arrive cut anywhere, the end of its head and its body included; the answer is
// the same for every cut.
TEST(HttpServer, AnswersTheSameWhereverTheRequestIsCut) {
    RunningServer s;
    RawClient c(s.server.port);
    const std::string request = "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabc";
    for (std::size_t cut = 1; cut < request.size(); ++cut) {
        ASSERT_TRUE(c.send(request.substr(0, cut))) << cut;
        zq::sleep_ms(1);  // lets the first piece arrive on its own; the answer must not depend on it
        ASSERT_TRUE(c.send(request.substr(cut))) << cut;
        auto r = c.read_response();
        ASSERT_TRUE(r.ok) << cut;
        EXPECT_TRUE(r.head.starts_with("HTTP/1.1 200 OK\r\n")) << cut;
        EXPECT_EQ(r.body, "POST /echo [abc]") << cut;
    }
}

// One kept-alive connection: the handler's headers beside the two the server decides itself,
// pipelined requests with bodies and a HEAD, a throwing handler, and the close rules.
TEST(HttpServer, KeepsAlivePipelinesAndAnswersAThrowingHandlerUntilCloseRules) {
    RunningServer s;
    {
        RawClient c(s.server.port);
        ASSERT_TRUE(c.send("GET /status HTTP/1.1\r\nHost: x\r\n\r\n"));
        auto r = c.read_response();
        EXPECT_EQ(r.head, "HTTP/1.1 200 OK\r\nX-Path: /status\r\nContent-Length: 5\r\nConnection: keep-alive");
        EXPECT_EQ(r.body, "hello");

        // Five requests in one segment: bodies, HEAD, and a lower-case head that is no HEAD.
        ASSERT_TRUE(c.send("POST /echo1 HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc"
                           "POST /echo2 HTTP/1.1\r\nContent-Length: 0\r\n\r\n"
                           "GET /echo3 HTTP/1.1\r\n\r\n"
                           "HEAD /status HTTP/1.1\r\n\r\n"
                           "head /status HTTP/1.1\r\n\r\n"));
        EXPECT_EQ(c.read_response().body, "POST /echo1 [abc]");
        EXPECT_EQ(c.read_response().body, "POST /echo2 []");
        EXPECT_EQ(c.read_response().body, "GET /echo3 []");
        r = c.read_response(true);
        ASSERT_TRUE(r.ok);
        EXPECT_TRUE(has_line(r.head, "Content-Length: 5")) << r.head;
        r = c.read_response();  // would read "hello" as its head if HEAD had sent a body
        ASSERT_TRUE(r.ok);
        EXPECT_TRUE(r.head.starts_with("HTTP/1.1 200 OK\r\n")) << r.head;
        EXPECT_EQ(r.body, "hello");

        ASSERT_TRUE(c.send("GET /throw HTTP/1.1\r\n\r\nGET /forbidden HTTP/1.1\r\n\r\n"));
        r = c.read_response();
        ASSERT_TRUE(r.ok);
        EXPECT_TRUE(r.head.starts_with("HTTP/1.1 500 Internal Server Error\r\n")) << r.head;
        EXPECT_TRUE(has_line(r.head, "Content-Type: application/json"));
        EXPECT_TRUE(has_line(r.head, "Connection: keep-alive"));
        EXPECT_EQ(r.body, R"({"ResKind":1,"Message":"bridge error: boom"})");
        r = c.read_response();
        ASSERT_TRUE(r.ok);
        EXPECT_TRUE(r.head.starts_with("HTTP/1.1 403 Status\r\n")) << r.head;

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

    http::Server empty;  // no handler at all counts as a throwing one
    ASSERT_TRUE(empty.start("127.0.0.1", 0, nullptr, nullptr));
    RawClient e(empty.port);
    ASSERT_TRUE(e.send("GET / HTTP/1.1\r\n\r\n"));
    auto r = e.read_response();
    EXPECT_TRUE(r.head.starts_with("HTTP/1.1 500 ")) << r.head;
    EXPECT_TRUE(r.body.starts_with(R"({"ResKind":1,"Message":"bridge error: )")) << r.body;
}

// A body whose end cannot be placed (a bad length, or a coding that this server does not read),
// a header that holds a CR or LF of its own, or a body too large to take is answered from the
// head alone, and nothing after it on that connection is read as a request. A head past one
// mebibyte ends the connection without an answer, although the end of the head came.
TEST(HttpServer, RefusesBadLengthsOversizedBodiesAndHeads) {
    RunningServer s;
    std::string line = "X-Pad: " + std::string(1017, 'a') + "\r\n";  // 1026 bytes
    std::string pad;
    while (pad.size() + line.size() < http::max_head_buffer - 1024) pad += line;
    RawClient fits_head(s.server.port), over(s.server.port);
    ASSERT_TRUE(fits_head.send("GET /status HTTP/1.1\r\n" + pad + "\r\n"));
    EXPECT_EQ(fits_head.read_response().body, "hello");
    over.send("GET /status HTTP/1.1\r\n" + pad + line + line + "\r\n");
    EXPECT_TRUE(over.closed_by_peer());

    const std::tuple<const char*, const char*, const char*> refused[] = {
        {"Content-Length: -1", "400 Bad Request", "bad Content-Length"},
        {"Content-Length: abc", "400 Bad Request", "bad Content-Length"},
        {"Content-Length: 5\r\nContent-Length: 6", "400 Bad Request", "bad Content-Length"},
        {"Transfer-Encoding: chunked", "411 Status", "Transfer-Encoding is not taken; send Content-Length"},
        {"Content-Length: 5\r\nX-A: a\rX-B: b", "400 Bad Request", "bad header"},
        {"Content-Length: 5\r\nX-A\rX-B: b", "400 Bad Request", "bad header"},
    };
    // All at once: each refusal lingers a moment before it closes.
    std::vector<std::unique_ptr<RawClient>> clients;
    for (const auto& [headers, status, message] : refused) {
        clients.push_back(std::make_unique<RawClient>(s.server.port));
        ASSERT_TRUE(clients.back()->send(std::string("POST /echo HTTP/1.1\r\n") + headers +
                                         "\r\n\r\nhelloGET /echo HTTP/1.1\r\n\r\n"));
    }
    for (std::size_t i = 0; i < clients.size(); ++i) {
        const auto& [headers, status, message] = refused[i];
        RawClient& c = *clients[i];
        auto r = c.read_response();
        ASSERT_TRUE(r.ok) << headers;
        EXPECT_TRUE(r.head.starts_with(std::string("HTTP/1.1 ") + status + "\r\n")) << r.head;
        EXPECT_TRUE(has_line(r.head, "Connection: close")) << r.head;
        EXPECT_EQ(r.body, std::string(R"({"ResKind":1,"Message":")") + message + "\"}");
        EXPECT_TRUE(c.closed_by_peer()) << headers;
    }

    // 64 MiB on its way: the answer comes while it is still being sent.
    RawClient big(s.server.port);
    std::thread sender([&] {
        big.send("POST /echo HTTP/1.1\r\nContent-Length: 67108864\r\n\r\n" + std::string(64u << 20, 'x'));
    });
    auto r = big.read_response();
    EXPECT_TRUE(r.ok);
    EXPECT_TRUE(r.head.starts_with("HTTP/1.1 413 Status\r\n")) << r.head;
    EXPECT_EQ(r.body, R"({"ResKind":1,"Message":"request body too large"})");
    sender.join();

    // Just under the limit is taken whole.
    RawClient fits(s.server.port);
    std::thread fits_sender([&] {
        fits.send(zq::format_text("POST /echo HTTP/1.1\r\nContent-Length: %llu\r\n\r\n",
                                  static_cast<unsigned long long>(http::max_request_body)) +
                  std::string(http::max_request_body, 'y'));
    });
    r = fits.read_response();
    fits_sender.join();
    EXPECT_EQ(r.body.size(), http::max_request_body + std::string("POST /echo []").size());
}

TEST(HttpServer, SilentTricklingIdleAndDeafConnectionsAreClosed) {
    http::Server server;
    server.head_timeout_ms = 300;
    server.body_timeout_ms = 300;
    server.idle_timeout_ms = 3000;
    server.send_timeout_ms = 300;
    ASSERT_TRUE(server.start("127.0.0.1", 0, route, nullptr));

    RawClient silent(server.port);
    RawClient short_body(server.port);
    ASSERT_TRUE(short_body.send("POST /echo HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc"));
    EXPECT_TRUE(silent.closed_by_peer());
    EXPECT_TRUE(short_body.closed_by_peer());

    // A head that trickles in a byte at a time is due as a whole, not per byte.
    RawClient trickle(server.port);
    std::atomic<bool> closed{false};
    const double started = zq::steady_seconds();
    std::thread sender([&] {
        trickle.send("GET /status HTTP/1.1\r\n");
        for (int i = 0; i < 60 && !closed; ++i) {
            if (!trickle.send("X")) break;
            zq::sleep_ms(50);
        }
    });
    EXPECT_TRUE(trickle.closed_by_peer());
    closed = true;
    sender.join();
    EXPECT_LT(zq::steady_seconds() - started, 2.5);

    // Kept alive longer than a head may take, then closed once idle for too long.
    RawClient idle(server.port);
    ASSERT_TRUE(idle.send("GET /status HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(idle.read_response().ok);
    zq::sleep_ms(800);  // the gap under test, not a wait for something to happen
    ASSERT_TRUE(idle.send("GET /status HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(idle.read_response().body, "hello");
    EXPECT_TRUE(wait_until([&] { return idle.closed_by_peer(); }, 10.0));

    // One that asks for more than the buffers between the two hold, and stops reading after the
    // first answer: however it keeps the connection, the rest must go out in time.
    RawClient deaf(server.port);
    std::string requests;
    for (int i = 0; i < 16; ++i) requests += "GET /big HTTP/1.1\r\n\r\n";
    ASSERT_TRUE(deaf.send(requests));
    ASSERT_EQ(deaf.read_response().body.size(), 1u << 20);
    EXPECT_TRUE(wait_until([&] { return server.active_connections.load() == 0; }, 10.0));
}

// Stop wakes an idle kept-alive connection and cancels busy handlers, joining every thread.
TEST(HttpServer, StopWakesIdleAndBusyConnections) {
    std::atomic<int> busy{0}, saw_cancel{0};
    http::Server server;
    auto handler = [&](const http::ServerRequest& request) {
        if (request.path != "/slow") return route(request);
        ++busy;
        // Stands for an upstream call that ends when its flag is set.
        if (wait_until([&] { return request.cancel->cancelled(); }, 30.0)) ++saw_cancel;
        return http::ServerResponse{};
    };
    ASSERT_TRUE(server.start("127.0.0.1", 0, handler, nullptr));

    RawClient idle(server.port), first(server.port), other(server.port);
    ASSERT_TRUE(idle.send("GET /status HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(idle.read_response().ok);
    ASSERT_TRUE(first.send("GET /slow HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(other.send("GET /slow HTTP/1.1\r\n\r\n"));
    ASSERT_TRUE(wait_until([&] { return busy.load() == 2; }));
    const double started = zq::steady_seconds();
    server.stop();
    EXPECT_LT(zq::steady_seconds() - started, 2.0);
    EXPECT_EQ(saw_cancel.load(), 2);
    EXPECT_EQ(server.active_connections.load(), 0);
    EXPECT_TRUE(idle.closed_by_peer());
    server.stop();
}

TEST(HttpServer, AcceptGoesOnAfterRunningOutOfDescriptors) {
    if (running_under_wine())
        GTEST_SKIP() << "the descriptor limit is lowered with setrlimit, which Windows does not have";
    LogCapture log;
    RunningServer s;
    RawClient client(s.server.port, false);  // its socket exists before the descriptors run out
    if (!take_file_handles(0)) GTEST_SKIP() << "this system would not lower the descriptor limit";
    const bool connected = client.connect();
    const bool logged =
        log.wait_for(zq::format_text("http :%d: accept failed (error %d), trying again", s.server.port, EMFILE));
    give_back_file_handles();
    ASSERT_TRUE(connected);
    EXPECT_TRUE(logged);
    ASSERT_TRUE(client.send("GET /status HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(client.read_response().body, "hello");
}
