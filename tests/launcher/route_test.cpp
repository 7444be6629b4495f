// The --route command as a user runs it: a roaming folder with the launcher's settings, a game
// folder, and sarnlink-cli as a child process with APPDATA pointing at the roaming folder.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "launcher/discovery.h"
#include "shell/deployment.h"
#include "support/process.h"

using testing_support::cli_path;
using testing_support::ProcessResult;
using testing_support::run_process;
using testing_support::TempDir;
using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

namespace {

void write_file(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out << text;
}

std::string read_file(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> keys_of(const Json& doc) {
    std::vector<std::string> keys;
    for (const auto& item : doc.items()) keys.push_back(item.key());
    return keys;
}

class Route : public ::testing::Test {
protected:
    TempDir root;
    fs::path roaming = root.path() / "roaming";
    fs::path settings = roaming / "orlond-launcher" / "settings.json";
    fs::path game = root.path() / "game";

    void SetUp() override { fs::create_directories(roaming); }

    void make_game(const char* exe = "Duskhallow.exe") { write_file(game / exe, "MZ"); }
    void write_settings(const Json& doc) { write_file(settings, doc.dump(4)); }
    Json settings_now() { return Json::parse(read_file(settings)); }

    ProcessResult route(const std::string& value, const std::vector<std::string>& extra = {},
                        const std::optional<std::string>& appdata = std::nullopt) {
        std::vector<std::string> args{"--route", value};
        args.insert(args.end(), extra.begin(), extra.end());
        return run_process(cli_path(), args, root.path(), {{"APPDATA", appdata.value_or(zq::path_to_utf8(roaming))}});
    }

    std::string ok_line(int routed) {
        return "ok: orlond " + zq::path_to_utf8(game) + ", routed=" + std::to_string(routed) + "\n";
    }
};

}  // namespace

// Route on twice, then off: the first backup stands, the extra_env assignment is there once and
// goes again, the user's online keys come back, and the launcher's key order never changes.
TEST_F(Route, OnTwiceThenOffRestoresTheUsersSettings) {
    make_game();
    const Json original = {
        {"game_dir", zq::path_to_utf8(game / "Duskhallow.exe")},
        {"theme", "dark"},
        {"online", false},
        {"online_server", "oak.example:31313"},
        {"online_webapi", "https://web.oak.example"},
        {"online_password", ""},
        {"online_npid", "Wren"},
        {"extra_env", "A=1  NIMBRA7_P2P_PORT=9 B=2"},
        {"window", {{"w", 1280}, {"h", 720}}},
    };
    write_settings(original);

    auto r = route("on");
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.output, ok_line(1));
    const fs::path backup = roaming / "orlond-launcher" / "settings.json.before-sarnlink";
    const std::string first_backup = read_file(backup);
    EXPECT_EQ(Json::parse(first_backup), original);

    Json routed = settings_now();
    EXPECT_EQ(keys_of(routed), keys_of(original));
    EXPECT_EQ(routed["online"], true);
    EXPECT_EQ(routed["online_server"], "127.0.0.1:31313");
    EXPECT_EQ(routed["online_webapi"], "http://127.0.0.1:31315");
    EXPECT_EQ(routed["online_password"], "sarnlink");
    EXPECT_EQ(routed["extra_env"], "A=1 B=2 NIMBRA7_P2P_PORT=3658");
    EXPECT_EQ(read_file(settings).back(), '\n');
    EXPECT_TRUE(fs::is_regular_file(game / "user" / "host_overrides.custom.json"));

    r = route("on");
    EXPECT_EQ(r.output, ok_line(1));
    EXPECT_EQ(read_file(backup), first_backup);
    EXPECT_EQ(settings_now()["extra_env"], "A=1 B=2 NIMBRA7_P2P_PORT=3658");

    r = route("off");
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.output, ok_line(0));
    Json restored = settings_now();
    EXPECT_EQ(keys_of(restored), keys_of(original));
    EXPECT_EQ(restored["online_server"], "oak.example:31313");
    EXPECT_EQ(restored["online_webapi"], "https://web.oak.example");
    EXPECT_EQ(restored["online_password"], "");
    EXPECT_EQ(restored["online_npid"], "Wren");
    EXPECT_EQ(restored["extra_env"], "A=1 B=2");
    EXPECT_EQ(restored["online"], true) << "the game stays online, on its usual service";
    EXPECT_FALSE(fs::exists(game / "user" / "host_overrides.custom.json"));
}

// A password and an overrides file of the user's own survive the round trip unchanged.
TEST_F(Route, UsersPasswordAndOverridesSurvive) {
    make_game();
    write_settings({{"user_dir", ""}, {"online_server", "oak.example:31313"}, {"online_password", "hunter2"}});
    const fs::path overrides = game / "user" / "host_overrides.custom.json";
    const std::string users_file = "{ \"https://mine.example:443\":   \"http://127.0.0.1:9\" }";
    write_file(overrides, users_file);

    auto r = route("on", {"--orlond", zq::path_to_utf8(game)});
    EXPECT_EQ(r.output, ok_line(1));
    EXPECT_EQ(settings_now()["online_password"], "hunter2");
    EXPECT_EQ(read_file(fs::path(overrides) += ".before-sarnlink"), users_file);
    EXPECT_TRUE(Json::parse(read_file(overrides)).contains("_sarnlink"));

    r = route("off", {"--orlond", zq::path_to_utf8(game)});
    EXPECT_EQ(r.output, ok_line(0));
    EXPECT_EQ(settings_now()["online_password"], "hunter2");
    EXPECT_EQ(read_file(overrides), users_file);
    EXPECT_FALSE(fs::exists(fs::path(overrides) += ".before-sarnlink"));
}

// Without a backup, off points at the runtime's own service; any value but "on" routes off.
TEST_F(Route, OffWithoutBackupFallsBackToTheRuntimeService) {
    make_game();
    write_settings({{"game_dir", zq::path_to_utf8(game / "Duskhallow.exe")},
                    {"online", true},
                    {"online_server", "127.0.0.1:31313"},
                    {"online_webapi", "http://127.0.0.1:31315"},
                    {"online_password", "sarnlink"},
                    {"extra_env", "NIMBRA7_P2P_PORT=3658"}});
    auto r = route("banana");
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.output, ok_line(0));
    Json s = settings_now();
    EXPECT_EQ(s["online_server"], std::string(zq::kOakmeshHost) + ":31313");
    EXPECT_EQ(s["online_webapi"], "");
    EXPECT_EQ(s["online_password"], "");
    EXPECT_EQ(s["extra_env"], "");
}

// Each way discovery can fail, and the near misses that must still find the game.
TEST_F(Route, DiscoveryFailuresAndCandidates) {
    const std::string not_found = "orlond folder not found - choose the folder with Duskhallow.exe.";
    const fs::path coop = roaming / "orlond-launcher-coop" / "settings.json";

    auto r = route("on", {}, "");
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.output, "failed: APPDATA is not set\n");

    r = route("on");
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.output, "failed: orlond launcher settings not found. Start the orlond launcher once and close it.\n");

    // The first settings file found is final, even when the co-op launcher has a good one.
    write_file(coop, "{}");
    write_file(settings, "{ not json");
    r = route("on");
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.output, "failed: the orlond launcher's settings.json cannot be read\n");
    write_file(settings, "[1, 2]");
    EXPECT_EQ(route("on").output, "failed: the orlond launcher's settings.json cannot be read\n");

    // A directory that is named like the game is not the game.
    fs::remove(settings);
    fs::create_directories(game / "Duskhallow.exe");
    r = route("off", {"--orlond", zq::path_to_utf8(game)});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.output, "failed: " + not_found + "\n");

    // The co-op launcher alone serves, and the game's launcher-style name counts.
    fs::remove(game / "Duskhallow.exe");
    make_game("Play Duskhallow.exe");
    r = route("off", {"--orlond", zq::path_to_utf8(game)});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.output, ok_line(0));

    // An --orlond folder without the game does not end the search: game_dir's parent is next.
    write_file(coop, Json{{"game_dir", zq::path_to_utf8(game / "Play Duskhallow.exe")}}.dump());
    r = route("off", {"--orlond", zq::path_to_utf8(root.path())});
    EXPECT_EQ(r.output, ok_line(0));
}
