#include <cstdlib>
#include <sstream>
#include <unistd.h>

#include "support/host.h"

namespace testing_support {

bool running_under_wine() { return false; }

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

}  // namespace testing_support

namespace testing_support {

void set_env(const std::string& name, const std::string& value) {
    if (value.empty())
        ::unsetenv(name.c_str());
    else
        ::setenv(name.c_str(), value.c_str(), 1);
}

}  // namespace testing_support
