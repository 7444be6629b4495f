// A process killed at any moment while it replaces a JSON file leaves it whole: the old document
// or the new one, never a part. The writer is this test program itself, started again with a
// variable that turns it into a child that does nothing but write.

#include <algorithm>
#include <cstdio>
#include <random>

#include "shell/platform.h"
#include "shell/util.h"
#include "support/host.h"
#include "support/prelude.h"
#include "support/process.h"

namespace {

constexpr const char* kWriterVariable = "SARNLINK_TEST_ATOMIC_WRITER_DIR";

// Big enough that a write is not over in an instant.
json state_document(char mark) {
    json accounts = json::object();
    for (int i = 0; i < 100; ++i)
        accounts["player-" + std::to_string(i)] = {{"token", std::string(600, mark)}, {"online_id", "ü" + std::to_string(i)}};
    return {{"accounts", accounts}};
}

[[noreturn]] void run_writer(const std::filesystem::path& dir) {
    const json state[] = {state_document('a'), state_document('b')};
    for (unsigned n = 0;; ++n) {
        zq::write_json_atomic(dir / "state.json", state[n % 2], n % 4 < 2);
        if (n == 0) {
            std::fputs("writing\n", stdout);
            std::fflush(stdout);
        }
    }
}

// The temporary files in the folder: each write has one of its own, named "state.json.<x>.tmp".
std::vector<std::filesystem::path> temporary_files(const std::filesystem::path& dir) {
    std::vector<std::filesystem::path> found;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ignored))
        if (entry.path().extension() == ".tmp") found.push_back(entry.path());
    return found;
}

// Runs before the tests: as the writer child this program never reaches them.
[[maybe_unused]] const bool writer_child = [] {
    auto dir = zq::get_env(kWriterVariable);
    if (dir && !dir->empty()) run_writer(zq::utf8_to_wide(*dir));
    return false;
}();

}  // namespace

TEST(AtomicWrite, KilledWriterLeavesTheOldOrTheNewFileWhole) {
    TempDir dir;
    std::vector<std::string> whole;
    for (char mark : {'a', 'b'})
        for (const char* end : {"", "\n"}) whole.push_back(state_document(mark).dump(2) + end);
    zq::write_json_atomic(dir.path() / "state.json", state_document('b'), false);

    std::mt19937 random(20240611);
    std::uniform_int_distribution<int> delay_ms(0, 15);
    // A child takes about a third of a second to start under Wine, so there it is killed fewer times.
    const int kills = running_under_wine() ? 4 : 20;
    for (int kill = 0; kill < kills; ++kill) {
        Process writer(zq::own_executable_path(), {}, dir.path(),
                       {{kWriterVariable, zq::wide_to_utf8(dir.path().wstring())}});
        ASSERT_TRUE(writer.wait_for_output("writing", 20.0)) << writer.output();
        if (kill % 2 == 0) {
            zq::sleep_ms(delay_ms(random));
        } else {
            // Aim inside a write: the temporary file stands only while one is under way.
            for (double until = zq::steady_seconds() + 2.0; zq::steady_seconds() < until;)
                if (!temporary_files(dir.path()).empty()) break;
        }
        writer.wait(0.0);  // kills it wherever it is

        std::string state = read_file(dir.path() / "state.json");
        EXPECT_NE(std::find(whole.begin(), whole.end(), state), whole.end()) << "kill " << kill << ": " << state.size();
        // A cut temporary file is left behind by a kill inside a write; it must not pass for the
        // sign of the next one.
        for (const auto& left : temporary_files(dir.path())) std::filesystem::remove(left);
    }
}
