#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "shell/log.h"
#include "shell/net.h"
#include "shell/platform.h"
#include "shell/util.h"
#include "support/files.h"
#include "support/process.h"

using nlohmann::json;

using testing_support::read_file;
using testing_support::write_file;

TEST(Util, JsonReaders) {
    json doc = json::parse(R"({"a": "12ab", "b": "ab12", "c": 1.9, "d": -1.9, "e": 5, "f": null,
        "g": true, "h": {"x": 1}, "i": "", "j": "99999999999999999999", "k": 18446744073709551615})");
    EXPECT_EQ(zq::json_int(doc, "a", 7), 12);
    EXPECT_EQ(zq::json_int(doc, "b", 7), 7);
    EXPECT_EQ(zq::json_int(doc, "c", 7), 1);
    EXPECT_EQ(zq::json_int(doc, "d", 7), -1);
    EXPECT_EQ(zq::json_int(doc, "f", 7), 7);
    EXPECT_EQ(zq::json_int(doc, "g", 7), 1);
    EXPECT_EQ(zq::json_int(doc, "h", 7), 7);
    EXPECT_EQ(zq::json_int(doc, "i", 7), 7);
    EXPECT_EQ(zq::json_int(doc, "j", 7), 7);
    EXPECT_EQ(zq::json_int(doc, "missing", 7), 7);
    EXPECT_EQ(zq::json_int(json::array({1}), "a", 7), 7);
    EXPECT_EQ(zq::json_text(doc, "e", "x"), "5");
    EXPECT_EQ(zq::json_text(doc, "f", "x"), "x");
    EXPECT_EQ(zq::json_text(doc, "g", "x"), "true");
    EXPECT_EQ(zq::json_text(doc, "h", "x"), R"({"x":1})");
    EXPECT_EQ(zq::json_text(doc, "k", "x"), "18446744073709551615");
    EXPECT_FALSE(zq::json_has(doc, "f"));
    EXPECT_EQ(zq::format_text("%s-%03d", "a", 7), "a-007");
    EXPECT_EQ(zq::format_text("%s", ""), "");
    EXPECT_EQ(zq::wide_to_utf8(zq::utf8_to_wide("Grüße ✓")), "Grüße ✓");
}

TEST(Util, SocketAddresses) {
    zq::Endpoint e = zq::from_sockaddr(zq::to_sockaddr({"10.1.2.3", 70000}));
    EXPECT_EQ(e, (zq::Endpoint{"10.1.2.3", 4464}));
    EXPECT_EQ(zq::from_sockaddr(zq::to_sockaddr({"localhost", 80})), (zq::Endpoint{"0.0.0.0", 80}));
    EXPECT_EQ(zq::resolve_ipv4("127.0.0.1"), "127.0.0.1");
    EXPECT_FALSE(zq::local_ipv4().empty());
    EXPECT_TRUE((zq::Endpoint{"1.2.3.4", 65535}).usable());
    EXPECT_FALSE((zq::Endpoint{"1.2.3.4", 0}).usable());
    EXPECT_FALSE((zq::Endpoint{"", 5}).usable());
}

// A second bind of a port that is held must fail on both systems: that is what stops a
// second copy of the program.
TEST(Util, SecondBindFails) {
    ASSERT_TRUE(zq::network_init());
    zq::Socket first = zq::open_tcp_socket();
    zq::set_exclusive_address(first, true);
    ASSERT_TRUE(zq::bind_socket(first, zq::to_sockaddr({"127.0.0.1", 0})));
    ASSERT_TRUE(zq::listen_socket(first, 8));
    zq::SockAddr held;
    ASSERT_TRUE(zq::local_address(first, &held));
    zq::Socket second = zq::open_tcp_socket();
    zq::set_exclusive_address(second, true);
    EXPECT_FALSE(zq::bind_socket(second, held));
    zq::close_socket(second);
    zq::close_socket(first);
}

TEST(Util, WriteJsonAtomic) {
    testing_support::TempDir dir;
    auto target = dir.path() / "state.json";
    ASSERT_TRUE(zq::write_json_atomic(target, json{{"b", "ü"}, {"a", 1}}, false));
    EXPECT_EQ(read_file(target), "{\n  \"a\": 1,\n  \"b\": \"ü\"\n}");
    ASSERT_TRUE(zq::write_json_atomic(target, json::object(), true));
    EXPECT_EQ(read_file(target), "{}\n");
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "state.json.tmp"));
    EXPECT_THROW(zq::write_json_atomic(target, json{{"a", std::string("\xff")}}, false), json::exception);
    EXPECT_EQ(read_file(target), "{}\n");
    EXPECT_FALSE(zq::write_json_atomic(dir.path() / "missing" / "x.json", json::object(), false));
}

// A write that cannot complete leaves the old file whole. A folder in the way of the
// temporary file stands for a medium that refuses writes (root ignores read-only folders).
TEST(Util, FailedWriteLeavesTheFile) {
    testing_support::TempDir dir;
    auto target = dir.path() / "state.json";
    ASSERT_TRUE(zq::write_json_atomic(target, json{{"a", 1}}, false));
    std::filesystem::create_directory(dir.path() / "state.json.tmp");
    EXPECT_FALSE(zq::write_json_atomic(target, json{{"a", 2}}, false));
    EXPECT_EQ(read_file(target), "{\n  \"a\": 1\n}");
}

// Each start turns the old log over once: one generation of history, named from the stem
// before the last ".log".
TEST(Util, LogTurnover) {
    testing_support::TempDir dir;
    std::vector<std::string> seen;
    zq::set_log_sink([&](const std::string& line) { seen.push_back(line); });
    auto run = dir.path() / "run.log";
    zq::open_log_file(run);
    zq::log_line("first run");
    zq::open_log_file(run);
    zq::log_line(std::string(300, 'x'));
    auto odd = dir.path() / "a.log.txt";
    zq::open_log_file(odd);
    zq::open_log_file(odd);
    zq::open_log_file(dir.path() / "nowhere" / "x.log");
    zq::log_line("console only");
    zq::set_log_sink(nullptr);

    EXPECT_NE(read_file(dir.path() / "run.prev.log").find(" [sarnlink] first run\n"), std::string::npos);
    std::string current = read_file(run);
    EXPECT_EQ(current.size(), 8 + 12 + 300 + 1u);
    EXPECT_TRUE(std::filesystem::exists(dir.path() / "a.prev.log"));
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[2].substr(8), " [sarnlink] console only");
    EXPECT_EQ(seen[2][2], ':');
}

// A stranger who triggers one cause over and over gets a handful of lines, not one each,
// and does not silence the other causes.
TEST(Util, LogLimitedPerCause) {
    std::vector<std::string> seen;
    zq::set_log_sink([&](const std::string& line) { seen.push_back(line); });
    int written = 0;
    for (int i = 0; i < 50; ++i) written += zq::log_limited("test flood", "flood line") ? 1 : 0;
    bool other = zq::log_limited("test other", "other line");
    zq::set_log_sink(nullptr);
    EXPECT_EQ(written, 5);
    EXPECT_TRUE(other);
    EXPECT_EQ(seen.size(), 6u);
}

TEST(ProcessUsage, SeesAThreadComeAndGo) {
    // A first thread, so that what a runtime starts beside the first one (a sanitizer's
    // background thread) is there before the count is taken.
    std::thread([] {}).join();
    const zq::ProcessUsage before = zq::process_usage();
    EXPECT_GT(before.threads, 0);
    EXPECT_GT(before.memory_bytes, 0u);
    std::atomic<bool> release{false};
    std::thread extra([&] {
        while (!release) zq::sleep_ms(1);
    });
    // Other tests' threads do not run here, so the count moves by exactly this one.
    EXPECT_TRUE(testing_support::wait_until([&] { return zq::process_usage().threads == before.threads + 1; }))
        << before.threads << " before, " << zq::process_usage().threads << " now";
    release = true;
    extra.join();
    EXPECT_TRUE(testing_support::wait_until([&] { return zq::process_usage().threads == before.threads; }));
}
