#include <atomic>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "http/fetch.h"
#include "http/server.h"
#include "shell/platform.h"
#include "shell/util.h"
#include "support/fake_service.h"
#include "support/host.h"
#include "support/prelude.h"
#include "support/process.h"
#include "support/trickle_server.h"

TEST(HttpFetch, RoundTripsOnBothKindsOfSessionRecyclesByAgeAndRefusesBadUrls) {
    FakeService far;
    ASSERT_TRUE(far.start());
    ScriptedAnswer answer = ScriptedAnswer::text(200, "answer"), moved = ScriptedAnswer::text(301, "moved");
    answer.headers = {{"X-A", "  b c "}, {"X-Z", "last"}};
    moved.headers = {{"Location", "/new"}};
    far.answer("/echo", answer);
    far.answer("/old", moved);
    http::RecycledSession recycled(45.0);
    for (bool shared : {true, false}) {
        SCOPED_TRACE(shared ? "shared session" : "recycled session");
        auto fetch = [&](const http::ClientRequest& r) { return shared ? http::fetch(r) : http::fetch(recycled, r); };

        http::ClientRequest post{"POST", far.base_url() + "/echo?q=1"};
        post.headers = {{"User-Agent", "custom/1"}, {"X-Custom", "v"}};
        post.body = std::string(2000, 'p');  // large enough that a client might ask for 100-continue
        auto r = fetch(post);
        EXPECT_EQ(r.error, "");
        EXPECT_EQ(r.status, 200u);
        EXPECT_EQ(r.body, "answer");
        auto sent = far.last_request();
        EXPECT_EQ(sent.method + " " + sent.path + " " + sent.body, "POST /echo?q=1 " + post.body);
        EXPECT_EQ(sent.header("User-Agent"), "custom/1");
        EXPECT_EQ(sent.header("X-Custom"), "v");
        EXPECT_EQ(sent.header("Content-Type"), "");
        EXPECT_EQ(http::find_header(r.headers, "X-A"), "b c");
        EXPECT_EQ(http::find_header(r.headers, "content-length"), "6");
        ASSERT_FALSE(r.headers.empty());
        EXPECT_NE(r.headers.front().first.substr(0, 5), "HTTP/");

        r = fetch(http::ClientRequest{"GET", far.base_url() + "/missing/./../x"});
        EXPECT_EQ(r.error, "");  // an error status is no failure
        EXPECT_EQ(r.status, 404u);
        // The path goes out as given, dot segments and all.
        const auto sent_get = far.last_request();
        EXPECT_EQ(sent_get.method + " " + sent_get.path + " " + sent_get.header("User-Agent"),
                  "GET /missing/./../x sarnlink");

        const std::size_t before = far.request_count();
        r = fetch(http::ClientRequest{"GET", far.base_url() + "/old"});
        EXPECT_EQ(r.error, "");
        EXPECT_EQ(r.status, 301u);
        EXPECT_EQ(http::find_header(r.headers, "Location"), "/new");
        EXPECT_EQ(r.body, "moved");
        EXPECT_EQ(far.request_count(), before + 1);  // the redirect was not followed
    }

    // The recycled session is opened again only once it is 45 seconds old.
    const double young = zq::steady_seconds() - 44.0, old = zq::steady_seconds() - 45.0;
    recycled.opened_at = young;
    EXPECT_EQ(http::fetch(recycled, http::ClientRequest{"GET", far.base_url() + "/b"}).error, "");
    EXPECT_EQ(recycled.opened_at, young);
    recycled.opened_at = old;
    EXPECT_EQ(http::fetch(recycled, http::ClientRequest{"GET", far.base_url() + "/c"}).error, "");
    EXPECT_GT(recycled.opened_at, old);
    EXPECT_NE(recycled.handle, nullptr);

    // A raw head as the system hands it over: the status line and lines without a colon go.
    EXPECT_EQ(http::split_raw_headers("HTTP/1.1 200 OK\r\nX-A:  b c \r\nno colon here\r\nB:\r\nC: x:y\r\n\r\n"),
              (http::HeaderList{{"X-A", "b c"}, {"B", ""}, {"C", "x:y"}}));
    EXPECT_TRUE(http::split_raw_headers("X-A: first line is the status line").empty());

    // Bad URLs are refused before any network.
    const std::string base = far.base_url();
    far.clear_requests();
    for (const std::string& url : {""s, "127.0.0.1/echo"s, "http://" + std::string(256, 'h') + "/",
                                   base + "/" + std::string(4095, 'a')}) {
        auto r = http::fetch(http::ClientRequest{"GET", url});
        EXPECT_EQ(r.error, "bad url " + url);
        EXPECT_EQ(r.status, 0u);
    }
    EXPECT_EQ(far.request_count(), 0u);
    EXPECT_EQ(http::fetch(http::ClientRequest{"GET", base + "/" + std::string(4000, 'a')}).error, "");
    EXPECT_EQ(far.request_count(), 1u);
}

// Each way a call fails has its own words. A limit ends a call that is already waiting: on a
// server that holds its answer, and on one that trickles its body so that no single wait is
// ever long; so does a cancel.
TEST(HttpFetch, FailuresAreWordedAndLimitsEndACallUnderWay) {
    FakeService holding;
    ASSERT_TRUE(holding.start());
    holding.answer("/held", ScriptedAnswer::delayed(30.0, json::object()));
    TrickleServer trickling, stalling(60.0);

    http::ClientRequest request{"POST", holding.base_url() + "/held"};
    request.timeout_ms = 300;
    double began = zq::steady_seconds();
    EXPECT_EQ(http::fetch(request).error, "The read operation timed out");
    EXPECT_LT(zq::steady_seconds() - began, 8.0);  // the limit given, not the default

    // The head arrives, the body stops short: a failure of the read, with the head kept.
    request.url = stalling.base_url() + "/stall";
    request.timeout_ms = 2000;  // time for the head on a loaded machine
    auto r = http::fetch(request);
    EXPECT_TRUE(r.error.starts_with("read failed (")) << r.error;
    EXPECT_EQ(r.status, 200u);

    r = http::fetch(http::ClientRequest{"GET", zq::format_text("http://127.0.0.1:%d/", closed_port())});
    EXPECT_TRUE(r.error.starts_with("request failed (")) << r.error;
    EXPECT_NE(r.error, "request failed (0)");

    for (const std::string url : {trickling.base_url() + "/trickle", holding.base_url() + "/held"}) {
        SCOPED_TRACE(url);
        request = http::ClientRequest{"GET", url};
        request.timeout_ms = 20000;
        request.deadline_ms = 500;
        began = zq::steady_seconds();
        EXPECT_EQ(http::fetch(request).error, "deadline passed");
        EXPECT_LT(zq::steady_seconds() - began, 8.0);  // not the 20 s limit

        if (url.ends_with("/held") && running_under_wine())
            GTEST_SKIP() << "Wine's WinHTTP does not end a synchronous wait for the response head when another "
                            "thread closes the request handle";
        auto flag = std::make_shared<http::CancelFlag>();
        request.deadline_ms = 0;
        request.cancel = flag;
        const int seen_before = static_cast<int>(holding.request_count()) + trickling.requests();
        std::thread canceller([&] {
            wait_until([&] { return static_cast<int>(holding.request_count()) + trickling.requests() > seen_before; });
            flag->cancel();
        });
        began = zq::steady_seconds();
        http::RecycledSession session(45.0);
        EXPECT_EQ(http::fetch(session, request).error, "cancelled");
        EXPECT_LT(zq::steady_seconds() - began, 8.0);  // not the 20 s limit
        canceller.join();
    }
    holding.stop();
}

// A name looked up at the start goes into each session's cache with its first call, which
// reaches the server as a call that looked the name up itself would.
TEST(HttpFetch, ANameLookedUpAtTheStartServesTheFirstCallOfEachSession) {
    FakeService far;
    ASSERT_TRUE(far.start());
    far.answer("/echo", ScriptedAnswer::text(200, "answer"));
    std::string url = far.base_url() + "/echo";
    url.replace(url.find("127.0.0.1"), 9, "localhost");
    http::prepare_for(url);
    ASSERT_TRUE(wait_until([&] { return http::detail::early_lookup_done(url); }));
    http::RecycledSession recycled(45.0);
    for (bool shared : {true, false}) {
        SCOPED_TRACE(shared ? "shared session" : "recycled session");
        for (int call = 0; call < 2; ++call) {
            const http::ClientRequest request{"GET", url};
            auto r = shared ? http::fetch(request) : http::fetch(recycled, request);
            EXPECT_EQ(r.error, "");
            EXPECT_EQ(r.body, "answer");
        }
    }
}

// HTTPS against a local server whose certificate comes from a test authority: refused while that
// authority is unknown, accepted once the client is told to trust it, by a bundle or a folder.
TEST(HttpFetch, HttpsTrustsOnlyKnownAuthorities) {
    if (running_under_wine())
        GTEST_SKIP() << "WinHTTP under Wine trusts only the system store; the test authority cannot be added there";
    auto openssl = find_program("openssl");
    if (openssl.empty()) GTEST_SKIP() << "openssl is not installed";
    TempDir dir;
    write_file(dir.path() / "ext.cnf", "subjectAltName=IP:127.0.0.1\n");
    auto run = [&](std::vector<std::string> args, bool new_key) {
        if (new_key) args.insert(args.end(), {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"});
        auto r = run_process(openssl, args, dir.path());
        EXPECT_EQ(r.exit_code, 0) << r.output;
    };
    run({"req", "-x509", "-days", "2", "-subj", "/CN=sarnlink test authority", "-keyout", "ca.key", "-out", "ca.pem"},
        true);
    run({"req", "-subj", "/CN=127.0.0.1", "-keyout", "server.key", "-out", "server.csr"}, true);
    run({"x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-days", "2",
         "-extfile", "ext.cnf", "-out", "server.pem"},
        false);

    // Answers every request with a page of its own, then closes.
    Process server(openssl, {"s_server", "-accept", "127.0.0.1:0", "-cert", "server.pem", "-key", "server.key", "-www"},
                   dir.path());
    std::string port;
    ASSERT_TRUE(wait_until([&] {
        const std::string out = server.output();
        const std::size_t at = out.find("ACCEPT 127.0.0.1:"), end = out.find('\n', at);
        if (at == std::string::npos || end == std::string::npos) return false;
        port = out.substr(at + 17, end - at - 17);
        return true;
    }, 30.0)) << server.output();
    const http::ClientRequest request{"GET", "https://127.0.0.1:" + port + "/"};

    set_env("SSL_CERT_FILE", "");
    // The start's TLS work runs beside the first call, and its own throwaway authority is
    // trusted nowhere else.
    http::prepare_for(request.url);
    auto r = http::fetch(request);
    EXPECT_TRUE(r.error.starts_with("request failed (")) << r.error;
    EXPECT_EQ(r.body, "");

    set_env("SSL_CERT_FILE", (dir.path() / "ca.pem").string());
    r = http::fetch(request);
    set_env("SSL_CERT_FILE", "");
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.status, 200u);
    EXPECT_TRUE(r.body.starts_with("<HTML>")) << r.body;

    // A folder of hashed certificates, read as the server needs it. A session of its own, so that
    // the handshake is a full one and not the resumption of a session that the bundle allowed.
    std::filesystem::create_directory(dir.path() / "certs");
    std::filesystem::copy_file(dir.path() / "ca.pem", dir.path() / "certs" / "ca.pem");
    run({"rehash", "certs"}, false);
    set_env("SSL_CERT_DIR", (dir.path() / "certs").string());
    http::RecycledSession fresh(45.0);
    r = http::fetch(fresh, request);
    set_env("SSL_CERT_DIR", "");
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.status, 200u);
}

// Calls made at once each open a connection; the next burst finds them all still open.
TEST(HttpFetch, ConnectionsOfABurstAreKeptForTheNext) {
    constexpr int burst = 8;  // above what a connection cache keeps per transfer by default
    std::mutex lock;
    std::set<int> ports;  // the callers' ends, one per connection
    std::atomic<int> arrived{0};
    http::Server server;
    ASSERT_TRUE(server.start("127.0.0.1", 0, [&](const http::ServerRequest& request) {
        {
            std::lock_guard<std::mutex> guard(lock);
            ports.insert(request.peer.port);
        }
        // Held until the whole burst is in, so that no call can take another's connection.
        const int round = ++arrived > burst ? 2 : 1;
        wait_until([&] { return arrived.load() >= round * burst; }, 30.0);
        return http::ServerResponse{200, {}, "ok"};
    }, nullptr));
    auto run_burst = [&] {
        std::vector<std::thread> callers;
        for (int i = 0; i < burst; ++i)
            callers.emplace_back([&] {
                const auto r = http::fetch(http::ClientRequest{"GET", "http://127.0.0.1:" + std::to_string(server.port) + "/"});
                EXPECT_EQ(r.error + r.body, "ok");
            });
        for (auto& caller : callers) caller.join();
    };
    run_burst();
    ASSERT_EQ(ports.size(), static_cast<std::size_t>(burst));
    run_burst();
    EXPECT_EQ(ports.size(), static_cast<std::size_t>(burst));  // no new connection
    server.stop();
}
