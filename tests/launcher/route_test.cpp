// The --route command as a user runs it: sarnlink-cli as a child process, with APPDATA pointing
// at a temporary roaming folder that holds the launcher's settings, beside a game folder.

#include "launcher/discovery.h"
#include "shell/deployment.h"
#include "shell/platform.h"
#include "support/prelude.h"
#include "support/process.h"

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

namespace {

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
    fs::path overrides = game / "user" / "host_overrides.custom.json";
    std::string exe_text = zq::path_text(game / "Duskhallow.exe");

    Json settings_now() { return Json::parse(read_file(settings)); }

    // Paths go to the child as the test's own native text: under Wine the temporary folder is
    // already a Windows path (C:\users\...), which is what a Windows child needs in APPDATA.
    ProcessResult route(const std::string& value, const std::vector<std::string>& extra = {},
                        const std::optional<std::string>& appdata = std::nullopt) {
        std::vector<std::string> args{"--route", value};
        args.insert(args.end(), extra.begin(), extra.end());
        return run_process(cli_path(), args, root.path(), {{"APPDATA", appdata.value_or(zq::path_text(roaming))}});
    }
    std::string ok(int routed) { return "ok: orlond " + zq::path_text(game) + ", routed=" + std::to_string(routed) + "\n"; }
};

}  // namespace

// On twice, then off: the first backup stands, one P2P port assignment, the user's online keys
// and overrides file come back, and the launcher's key order never changes.
TEST_F(Route, OnTwiceThenOffRestoresTheUsersSettings) {
    write_file(game / "Duskhallow.exe", "MZ");
    const std::string users_overrides = "{ \"https://mine.example:443\":   \"http://127.0.0.1:9\" }";
    write_file(overrides, users_overrides);
    const Json original = {{"game_dir", exe_text}, {"online", false}, {"online_server", "oak:31313"},
                           {"online_webapi", "https://web.oak"}, {"online_password", "hunter2"},
                           {"online_npid", "Wren"}, {"extra_env", "A=1  NIMBRA7_P2P_PORT=9 B=2"},
                           {"window", {{"w", 1280}}}};
    write_file(settings, original.dump(4));

    auto r = route("on");
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.output, ok(1));
    const std::string backup = read_file(fs::path(settings) += ".before-sarnlink");
    EXPECT_EQ(Json::parse(backup), original);
    EXPECT_EQ(read_file(fs::path(overrides) += ".before-sarnlink"), users_overrides);
    EXPECT_TRUE(Json::parse(read_file(overrides)).contains("_sarnlink"));

    EXPECT_EQ(route("on").output, ok(1));
    EXPECT_EQ(read_file(fs::path(settings) += ".before-sarnlink"), backup);
    const Json routed = settings_now();
    EXPECT_EQ(keys_of(routed), keys_of(original));
    EXPECT_EQ(routed["online_server"], "127.0.0.1:31313");
    EXPECT_EQ(routed["online_password"], "hunter2");
    EXPECT_EQ(routed["extra_env"], "A=1 B=2 NIMBRA7_P2P_PORT=3658");
    EXPECT_EQ(read_file(settings).back(), '\n');

    r = route("off");
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.output, ok(0));
    const Json restored = settings_now();
    EXPECT_EQ(keys_of(restored), keys_of(original));
    EXPECT_EQ(restored["online_server"], "oak:31313");
    EXPECT_EQ(restored["online_webapi"], "https://web.oak");
    EXPECT_EQ(restored["online_password"], "hunter2");
    EXPECT_EQ(restored["extra_env"], "A=1 B=2");
    EXPECT_EQ(read_file(overrides), users_overrides);
}

// Without a backup, off points at the runtime's own service; any value but "on" routes off.
TEST_F(Route, OffWithoutBackupFallsBackToTheRuntimeService) {
    write_file(game / "Duskhallow.exe", "MZ");
    write_file(settings, Json{{"game_dir", exe_text}, {"online", true}, {"online_server", "127.0.0.1:31313"},
                              {"online_webapi", "http://127.0.0.1:31315"}, {"online_password", "sarnlink"}}
                             .dump());
    EXPECT_EQ(route("banana").output, ok(0));
    const Json s = settings_now();
    EXPECT_EQ(s["online_server"], std::string(zq::kOakmeshHost) + ":31313");
    EXPECT_EQ(s["online_webapi"], "");
    EXPECT_EQ(s["online_password"], "");
}

// Each way discovery can fail, and the near misses that must still find the game.
TEST_F(Route, DiscoveryFailuresAndCandidates) {
    const fs::path coop = roaming / "orlond-launcher-coop" / "settings.json";
    const std::vector<std::string> at_game{"--orlond", zq::path_text(game)};
    auto fails_with = [&](const std::string& message, const ProcessResult& r) {
        EXPECT_EQ(r.exit_code, 1) << message;
        EXPECT_EQ(r.output, "failed: " + message + "\n");
    };

    fails_with("APPDATA is not set", route("on", {}, ""));
    fails_with("orlond launcher settings not found. Start the orlond launcher once and close it.", route("on"));
    // The first settings file found is final, even when the co-op launcher has a good one.
    write_file(coop, "{}");
    write_file(settings, "{ not json");
    fails_with("the orlond launcher's settings.json cannot be read", route("on"));
    write_file(settings, "[1, 2]");
    fails_with("the orlond launcher's settings.json cannot be read", route("on"));

    fs::remove(settings);
    fs::create_directories(game / "Duskhallow.exe");
    fails_with("orlond folder not found - choose the folder with Duskhallow.exe.", route("off", at_game));

    write_file(game / "Play Duskhallow.exe", "MZ");
    EXPECT_EQ(route("off", at_game).output, ok(0));
    // An --orlond folder without the game does not end the search: game_dir's parent is next.
    write_file(coop, Json{{"game_dir", zq::path_text(game / "Play Duskhallow.exe")}}.dump());
    EXPECT_EQ(route("off", {"--orlond", zq::path_text(root.path())}).output, ok(0));
}
