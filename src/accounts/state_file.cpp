#include "accounts/state_file.h"

#include <ctime>
#include <fstream>
#include <sstream>

#include "shell/platform.h"

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

nlohmann::json read_state_file(const std::filesystem::path& path) {
    std::string text;
    if (!read_whole_file(path, text)) return nlohmann::json::object();
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
