// A process killed at any moment while it replaces its JSON files leaves each one whole: the old
// document or the new one, never a part. The writer is this test program itself, started again
// with a variable that turns it into a child that does nothing but write.

#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "shell/platform.h"
#include "shell/util.h"
#include "support/files.h"
#include "support/host.h"
#include "support/process.h"

using testing_support::read_file;

namespace {

constexpr const char* kWriterVariable = "SARNLINK_TEST_ATOMIC_WRITER_DIR";

// Big enough that a write is not over in an instant.
nlohmann::json state_document(char mark) {
    nlohmann::json accounts = nlohmann::json::object();
    for (int i = 0; i < 100; ++i)
        accounts["player-" + std::to_string(i)] = {{"token", std::string(600, mark)}, {"online_id", "ü" + std::to_string(i)}};
    return {{"accounts", accounts}};
}

// The launcher's settings keep their key order and end with a line break.
nlohmann::ordered_json settings_document(char mark) {
    nlohmann::ordered_json doc = {{"online", true}, {"online_server", std::string(1, mark)}};
    for (int i = 0; i < 100; ++i) doc["key-" + std::to_string(i)] = std::string(600, mark);
    return doc;
}

[[noreturn]] void run_writer(const std::filesystem::path& dir) {
    const nlohmann::json state[] = {state_document('a'), state_document('b')};
    const nlohmann::ordered_json settings[] = {settings_document('a'), settings_document('b')};
    for (unsigned n = 0;; ++n) {
        zq::write_json_atomic(dir / "state.json", state[n % 2], false);
        zq::write_json_atomic(dir / "settings.json", settings[n % 2], true);
        if (n == 0) {
            std::fputs("writing\n", stdout);
            std::fflush(stdout);
        }
    }
}

// Runs before the tests: as the writer child this program never reaches them.
[[maybe_unused]] const bool writer_child = [] {
    auto dir = zq::get_env(kWriterVariable);
    if (dir && !dir->empty()) run_writer(zq::utf8_to_wide(*dir));
    return false;
}();

}  // namespace

TEST(AtomicWrite, KilledWriterLeavesTheOldOrTheNewFileWhole) {
    testing_support::TempDir dir;
    const std::string state_texts[] = {state_document('a').dump(2), state_document('b').dump(2)};
    const std::string settings_texts[] = {settings_document('a').dump(2) + "\n", settings_document('b').dump(2) + "\n"};
    zq::write_json_atomic(dir.path() / "state.json", state_document('b'), false);
    zq::write_json_atomic(dir.path() / "settings.json", settings_document('b'), true);

    std::mt19937 random(20240611);
    std::uniform_int_distribution<int> delay_ms(0, 15);
    // A child takes about a third of a second to start under Wine, so there it is killed fewer times.
    const int kills = testing_support::running_under_wine() ? 4 : 20;
    for (int kill = 0; kill < kills; ++kill) {
        testing_support::Process writer(zq::own_executable_path(), {}, dir.path(),
                                        {{kWriterVariable, zq::wide_to_utf8(dir.path().wstring())}});
        ASSERT_TRUE(writer.wait_for_output("writing", 20.0)) << writer.output();
        if (kill % 2 == 0) {
            zq::sleep_ms(delay_ms(random));
        } else {
            // Aim inside a write: the temporary file stands only while one is under way.
            const auto tmp = dir.path() / (kill % 4 == 1 ? "state.json.tmp" : "settings.json.tmp");
            for (double until = zq::steady_seconds() + 2.0; zq::steady_seconds() < until;)
                if (std::filesystem::exists(tmp)) break;
        }
        writer.wait(0.0);  // kills it wherever it is

        std::string state = read_file(dir.path() / "state.json");
        std::string settings = read_file(dir.path() / "settings.json");
        EXPECT_TRUE(state == state_texts[0] || state == state_texts[1]) << "kill " << kill << ": " << state.size();
        EXPECT_TRUE(settings == settings_texts[0] || settings == settings_texts[1])
            << "kill " << kill << ": " << settings.size();
        // A cut temporary file is left behind by a kill inside a write; it must not pass for the
        // sign of the next one.
        for (const char* tmp : {"state.json.tmp", "settings.json.tmp"}) std::filesystem::remove(dir.path() / tmp);
    }
}
