#include "accounts/state_file.h"

#include <ctime>
#include <fstream>
#include <sstream>

#include "shell/log.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace zq {

nlohmann::json parse_state_text(const std::string& text) { return nlohmann::json::parse(text, nullptr, false, false); }

bool read_whole_file(const std::filesystem::path& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::stringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
    return true;
}

namespace {

std::filesystem::path lock_path_of(const std::filesystem::path& path) {
    std::filesystem::path lock = path;
    lock += ".lock";
    return lock;
}

// Another process holds the lock for one read and one write; a wait beyond this is one that hangs.
constexpr double kLockWaitSeconds = 5.0;

}  // namespace

bool read_state_text(const std::filesystem::path& path, std::string& text) {
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored)) return false;  // no lock file beside nothing
    FileLock lock(lock_path_of(path), kLockWaitSeconds);
    return read_whole_file(path, text);
}

nlohmann::json read_state_file(const std::filesystem::path& path) {
    std::string text;
    if (!read_state_text(path, text)) return nlohmann::json::object();
    nlohmann::json doc = parse_state_text(text);
    if (!doc.is_object()) return nlohmann::json::object();
    return doc;
}

nlohmann::json& ensure_accounts(nlohmann::json& root) {
    if (!root.is_object()) root = nlohmann::json::object();
    nlohmann::json& accounts = root["accounts"];
    if (!accounts.is_object()) accounts = nlohmann::json::object();
    return accounts;
}

bool change_accounts(const std::filesystem::path& path, const std::function<bool(nlohmann::json& accounts)>& change) {
    FileLock lock(lock_path_of(path), kLockWaitSeconds);
    if (!lock.held()) return false;

    nlohmann::json root = nlohmann::json::object();
    bool corrupt = false;
    if (std::string text; read_whole_file(path, text)) {
        root = parse_state_text(text);
        corrupt = root.is_discarded();
        if (corrupt) root = nlohmann::json::object();
    }
    if (!change(ensure_accounts(root))) return true;

    std::filesystem::path aside;
    if (corrupt) {
        // What the player could still repair by hand is copied aside before it is replaced.
        aside = corrupt_state_backup_path(path);
        std::error_code failed;
        if (!std::filesystem::copy_file(path, aside, failed) || failed) return false;
    }
    bool written = false;
    try {
        written = write_json_atomic(path, root, false);
    } catch (const nlohmann::json::exception&) {
        written = false;
    }
    if (!aside.empty()) {
        std::error_code ignored;
        if (!written)
            std::filesystem::remove(aside, ignored);  // the corrupt file itself is still there
        else
            log_line("state file is corrupt; kept it as " + path_text(aside.filename()));
    }
    return written;
}

std::filesystem::path corrupt_state_backup_path(const std::filesystem::path& path) {
    std::tm now = local_time(std::time(nullptr));
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &now);
    std::filesystem::path base = path;
    base.replace_extension();
    for (int n = 1;; ++n) {
        std::filesystem::path candidate = base;
        std::string name = std::string(".corrupt-") + stamp;
        if (n > 1) name += '-' + std::to_string(n);
        candidate += utf8_path(name + ".json");
        std::error_code ignored;
        if (!std::filesystem::exists(candidate, ignored)) return candidate;
    }
}

std::filesystem::path state_path(const std::string& state_file) { return utf8_path(state_file); }

}  // namespace zq
