#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "http/fetch.h"
#include "http/server.h"
#include "shell/platform.h"
#include "shell/util.h"
#include "support/host.h"
#include "support/fake_service.h"
#include "support/process.h"
#include "support/trickle_server.h"
#include "support/wait.h"

namespace {

// Our own server as the far end: it echoes what the client sent and counts the calls.
struct EchoServer {
    http::Server server;
    std::atomic<int> calls{0};
    EchoServer() {
        server.start("127.0.0.1", 0, [this](const http::ServerRequest& r) {
            calls.fetch_add(1);
            http::ServerResponse out;
            if (r.path == "/old") {
                out.status = 301;
                out.headers = {{"Location", "/new"}};
                out.body = "moved";
                return out;
            }
            if (r.path == "/missing") out.status = 404;
            out.headers = {{"X-A", "  b c "}, {"X-Z", "last"}};
            out.body = r.method + " " + r.path + " [" + r.body + "] ua=" + http::find_header(r.headers, "User-Agent") +
                       " x=" + http::find_header(r.headers, "X-Custom") +
                       " type=" + http::find_header(r.headers, "Content-Type");
            return out;
        }, nullptr);
    }
    std::string url(const std::string& path) const { return zq::format_text("http://127.0.0.1:%d", server.port) + path; }
};

// A server that accepts one connection, reads the request and never answers, or answers with a
// head and part of a body and then stays silent.
struct SilentServer {
    bool network_up = zq::network_init();  // before the first socket
    zq::Socket listener = zq::open_tcp_socket();
    int port = 0;
    std::string reply;
    std::atomic<bool> done{false};
    std::thread thread;
    explicit SilentServer(std::string partial_reply = {}) : reply(std::move(partial_reply)) {
        zq::bind_socket(listener, zq::to_sockaddr({"127.0.0.1", 0}));
        zq::listen_socket(listener, 4);
        zq::SockAddr bound;
        zq::local_address(listener, &bound);
        port = zq::from_sockaddr(bound).port;
        thread = std::thread([this] { answer_once(); });
    }
    ~SilentServer() {
        done = true;
        if (thread.joinable()) thread.join();
        zq::close_socket(listener);
    }
    void answer_once() {
        std::vector<bool> ready;
        while (!done && zq::wait_readable({listener}, 20, ready) < 1) {}
        if (done) return;
        zq::Socket s = zq::accept_socket(listener);
        std::string head;
        char block[4096];
        while (head.find("\r\n\r\n") == std::string::npos) {
            if (zq::wait_readable({s}, 5000, ready) < 1) break;
            int n = zq::recv_some(s, block, sizeof block);
            if (n < 1) break;
            head.append(block, static_cast<std::size_t>(n));
        }
        if (!reply.empty()) zq::send_some(s, reply.data(), static_cast<int>(reply.size()));
        while (!done) zq::wait_readable({s}, 20, ready);  // hold the connection open, say nothing
        zq::close_socket(s);
    }
};

http::ClientRequest request_for(const std::string& url, const std::string& method = "GET") {
    http::ClientRequest r;
    r.method = method;
    r.url = url;
    return r;
}

}  // namespace

TEST(HttpFetch, SplitsRawResponseHeaders) {
    auto headers = http::split_raw_headers("HTTP/1.1 200 OK\r\nX-A:  b c \r\nno colon here\r\nB:\r\nC: x:y\r\n\r\n");
    http::HeaderList expected = {{"X-A", "b c"}, {"B", ""}, {"C", "x:y"}};
    EXPECT_EQ(headers, expected);
    EXPECT_TRUE(http::split_raw_headers("X-A: first line is the status line").empty());
}

TEST(HttpFetch, RoundTripsOnBothKindsOfSession) {
    EchoServer far;
    http::RecycledSession recycled(45.0);
    for (bool shared : {true, false}) {
        SCOPED_TRACE(shared ? "shared session" : "recycled session");
        auto fetch = [&](const http::ClientRequest& r) { return shared ? http::fetch(r) : http::fetch(recycled, r); };

        http::ClientRequest post;
        post.url = far.url("/echo?q=1");
        post.headers = {{"User-Agent", "custom/1"}, {"X-Custom", "v"}};
        post.body = std::string(2000, 'p');  // large enough that a client might ask for 100-continue
        auto r = fetch(post);
        EXPECT_EQ(r.error, "");
        EXPECT_EQ(r.status, 200u);
        EXPECT_EQ(r.body, "POST /echo?q=1 [" + post.body + "] ua=custom/1 x=v type=");
        EXPECT_EQ(http::find_header(r.headers, "X-A"), "b c");
        EXPECT_EQ(http::find_header(r.headers, "content-length"), std::to_string(r.body.size()));
        ASSERT_FALSE(r.headers.empty());
        EXPECT_NE(r.headers.front().first.substr(0, 5), "HTTP/");

        r = fetch(request_for(far.url("/missing")));
        EXPECT_EQ(r.error, "");  // an error status is no failure
        EXPECT_EQ(r.status, 404u);
        EXPECT_EQ(r.body, "GET /missing [] ua=sarnlink x= type=");

        int before = far.calls;
        r = fetch(request_for(far.url("/old")));
        EXPECT_EQ(r.error, "");
        EXPECT_EQ(r.status, 301u);
        EXPECT_EQ(http::find_header(r.headers, "Location"), "/new");
        EXPECT_EQ(r.body, "moved");
        EXPECT_EQ(far.calls, before + 1);  // the redirect was not followed
    }
}

TEST(HttpFetch, RefusesBadUrlsBeforeAnyNetwork) {
    EchoServer far;
    std::string base = far.url("");
    const std::string urls[] = {
        "",
        "127.0.0.1/echo",
        "http://" + std::string(256, 'h') + "/",
        base + "/" + std::string(4095, 'a'),
    };
    for (const auto& url : urls) {
        auto r = http::fetch(request_for(url));
        EXPECT_EQ(r.error, "bad url " + url);
        EXPECT_EQ(r.status, 0u);
    }
    EXPECT_EQ(far.calls, 0);
    auto r = http::fetch(request_for(base + "/" + std::string(4000, 'a')));
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(far.calls, 1);
}

TEST(HttpFetch, FailuresAreWorded) {
    SilentServer silent;
    auto request = request_for(zq::format_text("http://127.0.0.1:%d/poll", silent.port), "POST");
    request.timeout_ms = 300;
    double start = zq::steady_seconds();
    auto r = http::fetch(request);
    EXPECT_EQ(r.error, "The read operation timed out");
    EXPECT_LT(zq::steady_seconds() - start, 8.0);  // the limit given, not the default

    // The head arrives, the body stops short: a failure of the read, with the head kept.
    SilentServer partial("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789");
    request.url = zq::format_text("http://127.0.0.1:%d/poll", partial.port);
    r = http::fetch(request);
    EXPECT_TRUE(r.error.starts_with("read failed (")) << r.error;
    EXPECT_EQ(r.status, 200u);

    // A port where nobody listens.
    zq::Socket probe = zq::open_tcp_socket();
    zq::bind_socket(probe, zq::to_sockaddr({"127.0.0.1", 0}));
    zq::SockAddr bound;
    zq::local_address(probe, &bound);
    zq::close_socket(probe);
    r = http::fetch(request_for(zq::format_text("http://127.0.0.1:%d/", zq::from_sockaddr(bound).port)));
    EXPECT_TRUE(r.error.starts_with("request failed (")) << r.error;
    EXPECT_NE(r.error, "request failed (0)");
}

TEST(HttpFetch, RecycledSessionIsReopenedOnlyAfterItsAge) {
    EchoServer far;
    http::RecycledSession recycled(45.0);
    EXPECT_EQ(http::fetch(recycled, request_for(far.url("/a"))).status, 200u);
    ASSERT_NE(recycled.handle, nullptr);

    double young = zq::steady_seconds() - 44.0;
    recycled.opened_at = young;
    EXPECT_EQ(http::fetch(recycled, request_for(far.url("/b"))).status, 200u);
    EXPECT_EQ(recycled.opened_at, young);  // kept

    double old = zq::steady_seconds() - 45.0;
    recycled.opened_at = old;
    EXPECT_EQ(http::fetch(recycled, request_for(far.url("/c"))).status, 200u);
    EXPECT_GT(recycled.opened_at, old);  // given up and opened again
    EXPECT_NE(recycled.handle, nullptr);
}

// HTTPS against a local server whose certificate comes from a test authority: refused while that
// authority is unknown, accepted once the client is told to trust it.
TEST(HttpFetch, HttpsTrustsOnlyKnownAuthorities) {
    if (testing_support::running_under_wine())
        GTEST_SKIP() << "WinHTTP under Wine trusts only the system store; the test authority cannot be added there";
    auto openssl = testing_support::find_program("openssl");
    auto python = testing_support::find_program("python3");
    if (openssl.empty() || python.empty()) GTEST_SKIP() << "openssl or python3 is not installed";
    testing_support::TempDir dir;
    auto run = [&](const std::vector<std::string>& args) {
        auto r = testing_support::run_process(openssl, args, dir.path());
        EXPECT_EQ(r.exit_code, 0) << r.output;
    };
    std::ofstream(dir.path() / "ext.cnf") << "subjectAltName=IP:127.0.0.1\n";
    const std::vector<std::string> ec = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};
    auto with = [](std::vector<std::string> a, const std::vector<std::string>& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    run(with({"req", "-x509", "-days", "2", "-subj", "/CN=sarnlink test authority", "-keyout", "ca.key", "-out", "ca.pem"}, ec));
    run(with({"req", "-subj", "/CN=127.0.0.1", "-keyout", "server.key", "-out", "server.csr"}, ec));
    run({"x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-days", "2",
         "-extfile", "ext.cnf", "-out", "server.pem"});

    testing_support::Process server(python,
                                    {SARNLINK_SOURCE_DIR "/tests/support/tls_server.py", "server.pem", "server.key"},
                                    dir.path());
    ASSERT_TRUE(server.wait_for_output("listening ", 30.0)) << server.output();
    ASSERT_TRUE(testing_support::wait_until([&] { return server.output().find('\n') != std::string::npos; }, 10.0));
    int port = std::atoi(server.output().substr(server.output().find("listening ") + 10).c_str());
    auto request = request_for(zq::format_text("https://127.0.0.1:%d/", port));

    testing_support::set_env("SSL_CERT_FILE", "");
    auto r = http::fetch(request);
    EXPECT_TRUE(r.error.starts_with("request failed (")) << r.error;
    EXPECT_EQ(r.body, "");

    testing_support::set_env("SSL_CERT_FILE", (dir.path() / "ca.pem").string());
    r = http::fetch(request);
    testing_support::set_env("SSL_CERT_FILE", "");
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.status, 200u);
    EXPECT_EQ(r.body, "secure");
    server.interrupt();
    server.wait(10.0);
}

// A cancel or the whole-call deadline ends a call that is already waiting: on a server that
// holds its answer, and on one that trickles its body so that no single wait is ever long.
TEST(HttpFetch, CancelAndDeadlineEndACallUnderWay) {
    testing_support::FakeService holding;
    ASSERT_TRUE(holding.start());
    holding.answer("/held", testing_support::ScriptedAnswer::delayed(30.0, nlohmann::json::object()));
    testing_support::TrickleServer trickling;
    for (const std::string url : {trickling.base_url() + "/trickle", holding.base_url() + "/held"}) {
        SCOPED_TRACE(url);
        http::ClientRequest request;
        request.url = url;
        request.timeout_ms = 20000;
        request.deadline_ms = 500;
        double began = zq::steady_seconds();
        EXPECT_EQ(http::fetch(request).error, "deadline passed");
        EXPECT_LT(zq::steady_seconds() - began, 3.0);

        if (url.ends_with("/held") && testing_support::running_under_wine())
            GTEST_SKIP() << "Wine's WinHTTP does not end a synchronous wait for the response head when another "
                            "thread closes the request handle";
        auto flag = std::make_shared<http::CancelFlag>();
        request.deadline_ms = 0;
        request.cancel = flag;
        const int seen_before = holding.request_count() + trickling.requests();
        std::thread canceller([&] {
            testing_support::wait_until(
                [&] { return static_cast<int>(holding.request_count()) + trickling.requests() > seen_before; });
            flag->cancel();
        });
        began = zq::steady_seconds();
        http::RecycledSession session(45.0);
        EXPECT_EQ(http::fetch(session, request).error, "cancelled");
        EXPECT_LT(zq::steady_seconds() - began, 3.0);
        canceller.join();
    }
    holding.stop();
}
