// The state file holds tokens: other users of the machine must not read it, and a link planted
// where its temporary file goes must not redirect the write.

#include <gtest/gtest.h>

#include <filesystem>

#include "shell/util.h"
#include "support/files.h"
#include "support/host.h"
#include "support/process.h"

TEST(StateFile, WrittenForItsOwnerOnlyAndNeverThroughALink) {
    if (!testing_support::posix_files())
        GTEST_SKIP() << "POSIX file modes do not exist on Windows (nor under Wine); there the file stays in the "
                        "user's own profile";
    namespace fs = std::filesystem;
    testing_support::TempDir dir;
    const fs::path state = dir.path() / "state.json";
    testing_support::write_file(state, "{}");
    fs::permissions(state, fs::perms(0644));
    ASSERT_TRUE(zq::write_json_atomic(state, nlohmann::json{{"accounts", nlohmann::json::object()}}, false));
    EXPECT_EQ(fs::status(state).permissions() & fs::perms::all, fs::perms(0600));

    const fs::path victim = dir.path() / "victim.txt";
    testing_support::write_file(victim, "keep");
    fs::create_symlink(victim, dir.path() / "state.json.tmp");
    EXPECT_FALSE(zq::write_json_atomic(state, nlohmann::json::object(), false));
    EXPECT_EQ(testing_support::read_file(victim), "keep");
    EXPECT_EQ(testing_support::read_file(state), "{\n  \"accounts\": {}\n}");

    // A plain file left by a write that was cut short does not block the next one.
    fs::remove(dir.path() / "state.json.tmp");
    testing_support::write_file(dir.path() / "state.json.tmp", "{ cut");
    EXPECT_TRUE(zq::write_json_atomic(state, nlohmann::json::object(), false));
    EXPECT_EQ(testing_support::read_file(state), "{}");
}
