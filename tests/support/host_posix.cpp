#include <cstdlib>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/host.h"
#include "support/process.h"

namespace testing_support {

bool running_under_wine() { return false; }

bool posix_files() { return true; }

bool windows_build() { return false; }

namespace {
rlimit saved_limit{};
std::vector<int> taken_handles;
}  // namespace

bool take_file_handles(int spare) {
    if (getrlimit(RLIMIT_NOFILE, &saved_limit) != 0) return false;
    int open_now = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) (void)entry, ++open_now;
    rlimit tight = saved_limit;
    tight.rlim_cur = static_cast<rlim_t>(open_now + 64);
    if (setrlimit(RLIMIT_NOFILE, &tight) != 0) return false;
    for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) taken_handles.push_back(fd);
    for (int i = 0; i < spare && !taken_handles.empty(); ++i) {
        ::close(taken_handles.back());
        taken_handles.pop_back();
    }
    return true;
}

std::vector<std::string> bash_as_another_user(std::string* why) {
    if (::geteuid() != 0) {
        *why = "only root may start a program as another user, and these tests do not run as root";
        return {};
    }
    const std::filesystem::path setpriv = find_program("setpriv");
    if (setpriv.empty()) {
        *why = "setpriv (package util-linux) is missing";
        return {};
    }
    const std::filesystem::path bash = find_program("bash");
    if (bash.empty()) {
        *why = "no bash to run a script with";
        return {};
    }
    return {setpriv.string(), "--reuid=65534", "--regid=65534", "--clear-groups", bash.string(), "-c"};
}

std::string run_as_another_user(const std::vector<std::string>& bash, const std::string& script) {
    std::vector<std::string> args(bash.begin() + 1, bash.end());
    args.push_back(script);
    return run_process(bash[0], args, {}).output;
}

void give_back_file_handles() {
    for (int fd : taken_handles) ::close(fd);
    taken_handles.clear();
    setrlimit(RLIMIT_NOFILE, &saved_limit);
}

std::filesystem::path find_program(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path ? path : "");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (dir.empty()) continue;
        std::filesystem::path candidate = std::filesystem::path(dir) / name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return {};
}

void set_env(const std::string& name, const std::string& value) {
    if (value.empty())
        ::unsetenv(name.c_str());
    else
        ::setenv(name.c_str(), value.c_str(), 1);
}

}  // namespace testing_support
