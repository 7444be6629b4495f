#include <algorithm>
#include <atomic>
#include <thread>

#include "shell/log.h"
#include "shell/net.h"
#include "shell/platform.h"
#include "shell/util.h"
#include "support/host.h"
#include "support/log_capture.h"
#include "support/prelude.h"
#include "support/process.h"

TEST(Util, JsonReadersTextAndAddresses) {
    json doc = json::parse(R"({"a": "12ab", "b": "ab12", "c": 1.9, "d": -1.9, "e": 5, "f": null,
        "g": true, "h": {"x": 1}, "i": "", "j": "99999999999999999999", "k": 18446744073709551615})");
    std::vector<std::int64_t> ints;
    for (const char* key : {"a", "b", "c", "d", "f", "g", "h", "i", "j", "missing"})
        ints.push_back(zq::json_int(doc, key, 7));
    EXPECT_EQ(ints, (std::vector<std::int64_t>{12, 7, 1, -1, 7, 1, 7, 7, 7, 7}));
    EXPECT_EQ(zq::json_int(json::array({1}), "a", 7), 7);
    std::vector<std::string> texts;
    for (const char* key : {"e", "f", "g", "h", "k"}) texts.push_back(zq::json_text(doc, key, "x"));
    EXPECT_EQ(texts, (std::vector<std::string>{"5", "x", "true", R"({"x":1})", "18446744073709551615"}));
    EXPECT_FALSE(zq::json_has(doc, "f"));
    EXPECT_EQ(zq::format_text("%s-%03d", "a", 7), "a-007");
    EXPECT_EQ(zq::format_text("%s", ""), "");
    EXPECT_EQ(zq::wide_to_utf8(zq::utf8_to_wide("Grüße ✓")), "Grüße ✓");

    EXPECT_EQ(zq::from_sockaddr(zq::to_sockaddr({"10.1.2.3", 70000})), (zq::Endpoint{"10.1.2.3", 4464}));
    EXPECT_EQ(zq::from_sockaddr(zq::to_sockaddr({"localhost", 80})), (zq::Endpoint{"0.0.0.0", 80}));
    EXPECT_FALSE(zq::local_ipv4().empty());
}

// The names in a folder, sorted.
std::vector<std::string> names_in(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(zq::path_text(entry.path().filename()));
    std::sort(names.begin(), names.end());
    return names;
}

// Indented by 2 with raw UTF-8; a document that cannot be written, or a write that cannot
// complete, leaves the old file whole and no temporary file behind. Each write has a temporary
// file of its own, and one that another writer left is not touched. A folder where the file
// goes stands for a medium that refuses writes (root ignores read-only folders).
TEST(Util, WriteJsonAtomic) {
    TempDir dir;
    auto target = dir.path() / "state.json";
    ASSERT_TRUE(zq::write_json_atomic(target, json{{"b", "ü"}, {"a", 1}}, false));
    EXPECT_EQ(read_file(target), "{\n  \"a\": 1,\n  \"b\": \"ü\"\n}");
    write_file(dir.path() / "state.json.another-writer.tmp", "{ cut");
    ASSERT_TRUE(zq::write_json_atomic(target, json::object(), true));
    EXPECT_EQ(read_file(target), "{}\n");
    EXPECT_THROW(zq::write_json_atomic(target, json{{"a", std::string("\xff")}}, false), json::exception);
    EXPECT_EQ(read_file(target), "{}\n");
    EXPECT_FALSE(zq::write_json_atomic(dir.path() / "missing" / "x.json", json::object(), false));
    std::filesystem::create_directory(dir.path() / "folder.json");
    EXPECT_FALSE(zq::write_json_atomic(dir.path() / "folder.json", json::object(), false));
    EXPECT_EQ(names_in(dir.path()), (std::vector<std::string>{"folder.json", "state.json", "state.json.another-writer.tmp"}));
    EXPECT_EQ(read_file(dir.path() / "state.json.another-writer.tmp"), "{ cut");

    // The state file holds tokens: other users of the machine must not read it, and a link
    // planted where its temporary file goes must not redirect the write.
    if (!posix_files())
        GTEST_SKIP() << "the part on file modes and links is left out: POSIX file modes do not exist on Windows "
                        "(nor under Wine); there the file stays in the user's own profile";
    namespace fs = std::filesystem;
    const fs::path victim = dir.path() / "victim.txt";
    fs::permissions(target, fs::perms(0644));
    ASSERT_TRUE(zq::write_json_atomic(target, json{{"accounts", json::object()}}, false));
    EXPECT_EQ(fs::status(target).permissions() & fs::perms::all, fs::perms(0600));

    write_file(victim, "keep");
    fs::create_symlink(victim, dir.path() / "planted.tmp");
    EXPECT_FALSE(zq::write_new_file(dir.path() / "planted.tmp", "{}"));
    EXPECT_EQ(read_file(victim), "keep");
}

// What other players chose as their names reaches the console and the log only as text that
// cannot act on the terminal or pass for a line of its own, whichever line embeds it.
TEST(Util, PrintableText) {
    EXPECT_EQ(zq::printable("\x1B]0;owned\x07\x1B[2J\r\n12:00:00 [sarnlink] ok\tx"),
              "\\x1B]0;owned\\x07\\x1B[2J\\r\\n12:00:00 [sarnlink] ok\\tx");
    // A C1 introducer, a direction override, and bytes that are no UTF-8 (a stray byte, a cut
    // sequence, an overlong slash, an encoded surrogate); letters of any script stay.
    EXPECT_EQ(zq::printable("\xC2\x9B" "2J \xE2\x80\xAEtxt \xFF \xC3 \xC0\xAF \xED\xA0\x80 Grüße ✓"),
              "\\u009B2J \\u202Etxt \xEF\xBF\xBD \xEF\xBF\xBD \xEF\xBF\xBD\xEF\xBF\xBD \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD Grüße ✓");
    const std::string once = zq::printable("\x1B\xFF\\x1B");
    EXPECT_EQ(zq::printable(once), once);

    LogCapture log;
    zq::log_line("event: member 2 (\x1B[2J\rbob\n) joined room 7");
    EXPECT_EQ(log.count("event: member 2 (\\x1B[2J\\rbob\\n) joined room 7"), 1);
}

// Each start turns the old log over once: one generation of history, named from the stem
// before the last ".log", also where the name is no plain text. A stranger who triggers one
// cause over and over gets a handful of lines, not one each, and does not silence the other
// causes.
TEST(Util, LogTurnoverAndLimits) {
    TempDir dir;
    LogCapture log;
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
    const std::vector<std::string> seen = log.lines();

    EXPECT_NE(read_file(dir.path() / "run.prev.log").find(" [sarnlink] first run\n"), std::string::npos);
    std::string current = read_file(run);
    EXPECT_EQ(current.size(), 8 + 12 + 300 + 1u);
    EXPECT_TRUE(std::filesystem::exists(dir.path() / "a.prev.log"));
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[2].substr(8), " [sarnlink] console only");
    EXPECT_EQ(seen[2][2], ':');

    int written = 0;
    for (int i = 0; i < 50; ++i) written += zq::log_limited("test flood", "flood line") ? 1 : 0;
    EXPECT_TRUE(zq::log_limited("test other", "other line"));
    EXPECT_EQ(written, 5);
    EXPECT_EQ(log.lines().size(), 3u + 6u);

    for (const std::filesystem::path& name : odd_file_names(".log", running_under_wine())) {
        zq::open_log_file(dir.path() / name);
        zq::log_line("before");
        zq::open_log_file(dir.path() / name);
        zq::log_line("after");
        zq::open_log_file(dir.path() / "other.log");
        std::filesystem::path old = dir.path() / name;
        old.replace_extension(".prev.log");
        EXPECT_NE(read_file(old).find(" [sarnlink] before\n"), std::string::npos) << zq::path_text(name);
        EXPECT_NE(read_file(dir.path() / name).find(" [sarnlink] after\n"), std::string::npos) << zq::path_text(name);
    }
    if (running_under_wine())
        GTEST_SKIP() << "the log name with an unpaired surrogate is left out under Wine, which cannot store such a name";
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
    EXPECT_TRUE(wait_until([&] { return zq::process_usage().threads == before.threads + 1; }))
        << before.threads << " before, " << zq::process_usage().threads << " now";
    release = true;
    extra.join();
    EXPECT_TRUE(wait_until([&] { return zq::process_usage().threads == before.threads; }));
}
