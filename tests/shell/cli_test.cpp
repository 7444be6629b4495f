#include <gtest/gtest.h>

#include <fstream>

#include "shell/cli.h"
#include "support/files.h"
#include "support/process.h"

using testing_support::cli_path;
using testing_support::run_process;
using testing_support::TempDir;

using testing_support::read_file;
using testing_support::write_file;

// Whatever the order, a bad argument before --version wins, and --version ends the scan.
TEST(Cli, UsageVersionAndExitCodes) {
    TempDir dir;
    struct Case {
        std::vector<std::string> args;
        int code;
        std::string output;
    } cases[] = {
        {{"--version"}, 0, "sarnlink 0.3.2\n"},
        {{"--config", "x.json", "--version", "--bogus"}, 0, "sarnlink 0.3.2\n"},
        {{"--log", "out.log", "--version"}, 0, "sarnlink 0.3.2\n"},
        {{"--help", "--version"}, 2, zq::kUsageText},
        {{"--route"}, 2, zq::kUsageText},
        {{"--recover", "NAME"}, 2, zq::kUsageText},
        {{"--Version"}, 2, zq::kUsageText},
    };
    for (const auto& c : cases) {
        auto r = run_process(cli_path(), c.args, dir.path());
        EXPECT_EQ(r.exit_code, c.code) << c.args[0];
        EXPECT_EQ(r.output, c.output) << c.args[0];
    }
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "out.log"));
}

TEST(Cli, ConfigThatIsNotJsonEndsWithOne) {
    TempDir dir;
    write_file(dir.path() / "sarnlink_config.json", "");
    auto r = run_process(cli_path(), {}, dir.path());
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.output, "config sarnlink_config.json is not valid JSON\n");

    write_file(dir.path() / "other.json", "{ // no comments\n}");
    r = run_process(cli_path(), {"--config", "other.json"}, dir.path());
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.output, "config other.json is not valid JSON\n");
}
