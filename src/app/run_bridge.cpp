#include <atomic>

#include "accounts/state_file.h"
#include "app/app.h"
#include "shell/log.h"
#include "shell/platform.h"
#include "shell/util.h"
#include "shell/version.h"

namespace zq {

namespace {

std::atomic<bool> stop_requested{false};

// A path as the player finds it in Explorer or a shell, whatever folder the start came from.
std::string full_path_text(const std::filesystem::path& path) {
    std::error_code failed;
    std::filesystem::path full = std::filesystem::absolute(path, failed);
    return path_text((failed ? path : full).lexically_normal());
}

// Which files this run uses, so that a start from a shortcut or another folder is no mystery.
// Only reads: the state file stays exactly as it is.
void log_files_in_use(const Config& config, const std::filesystem::path& config_file, bool config_read) {
    std::error_code ignored;
    const std::string settings = full_path_text(config_file);
    if (config_read)
        log_line("config: " + settings);
    else if (std::filesystem::exists(config_file, ignored))
        log_line("config: " + settings + " cannot be read; the defaults apply");
    else
        log_line("config: " + settings + " not found; the defaults apply");

    const std::filesystem::path state = state_path(config.state_file);
    const std::string accounts = full_path_text(state);
    std::string text;
    if (!std::filesystem::exists(state, ignored)) {
        log_line("accounts: " + accounts + " does not exist yet; it is created with the first account");
        return;
    }
    if (!read_state_text(state, text)) {
        log_line("accounts: " + accounts + " cannot be read");
        return;
    }
    const nlohmann::json doc = parse_state_text(text);
    if (!doc.is_object()) {
        log_line("accounts: " + accounts + " is damaged (not a JSON object); put your backup copy in its place");
        return;
    }
    auto found = doc.find("accounts");
    std::size_t count = found != doc.end() && found->is_object() ? found->size() : 0;
    if (count == 0)
        log_line("accounts: " + accounts + " holds no account yet");
    else
        log_line("accounts: " + accounts + " holds " + std::to_string(count) + (count == 1 ? " account" : " accounts"));
}

}  // namespace

int run_bridge(const Config& config, const std::filesystem::path& config_file, bool config_read) {
    log_line(format_text("sarnlink %s (cli)", kVersion));
    log_files_in_use(config, config_file, config_read);
    use_few_allocator_pools();
    App app(config);
    std::string error;
    if (!app.start(&error)) return 1;
    // Only now: an interrupt during start keeps the console's default effect. The last start
    // lines come after it, so whoever waits for them may stop the run in order.
    install_stop_handler(&stop_requested);
    log_line("velmar server: " + config.velmar_server);
    log_line("community server: " + config.community_server);
    while (!stop_requested) sleep_ms(200);
    log_line("stopping");
    app.stop();
    return 0;
}

}  // namespace zq
