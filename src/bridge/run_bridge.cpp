#include <atomic>

#include "bridge/bridge.h"
#include "shell/commands.h"
#include "shell/log.h"
#include "shell/platform.h"
#include "shell/version.h"

namespace zq {

namespace {
std::atomic<bool> stop_requested{false};
}

int run_bridge(const Config& config) {
    log_line(format_text("sarnlink %s (cli)", kVersion));
    Bridge bridge(config);
    std::string error;
    if (!bridge.start(&error)) return 1;
    // Only now: an interrupt during start keeps the console's default effect.
    install_stop_handler(&stop_requested);
    while (!stop_requested) sleep_ms(200);
    log_line("stopping");
    bridge.stop();
    return 0;
}

}  // namespace zq
