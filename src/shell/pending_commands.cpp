// Commands whose subsystems are not built yet. Each subsystem removes its entry here when it
// defines the real command.
#include <cstdio>

#include "shell/commands.h"

namespace zq {

namespace {
int not_built() {
    std::printf("failed: not built yet\n");
    return 1;
}
}  // namespace

int run_link_discord(const Config&) { return not_built(); }
int run_account_command(const Config&, const std::wstring&, const std::wstring&, const std::wstring&) {
    return not_built();
}
int run_web_code(const Config&, const std::wstring&) { return not_built(); }

}  // namespace zq
