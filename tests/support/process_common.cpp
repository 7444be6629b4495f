#include <atomic>
#include <random>

#include "shell/util.h"
#include "support/process.h"
#include "support/wait.h"

namespace testing_support {

bool Process::wait_for_output(const std::string& text, double seconds) const {
    return wait_until([&] { return output().find(text) != std::string::npos; }, seconds);
}

ProcessResult run_process(const std::filesystem::path& program, const std::vector<std::string>& args,
                          const std::filesystem::path& working_dir, const std::map<std::string, std::string>& env,
                          double seconds) {
    Process p(program, args, working_dir, env);
    ProcessResult r;
    r.exit_code = p.wait(seconds);
    r.output = p.output();
    return r;
}

TempDir::TempDir() {
    static std::atomic<unsigned> counter{0};
    std::random_device seed;
    for (;;) {
        path_ = std::filesystem::temp_directory_path() /
                zq::format_text("sarnlink-test-%08x-%u", static_cast<unsigned>(seed()), counter.fetch_add(1));
        if (std::filesystem::create_directory(path_)) break;
    }
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace testing_support
