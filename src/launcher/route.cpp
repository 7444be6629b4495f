#include "launcher/route.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "launcher/overrides.h"
#include "shell/deployment.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace zq {

namespace {

constexpr const char* kP2pPortName = "NIMBRA7_P2P_PORT";
// Pins the game's P2P socket to the port_p2p_port default, so the STUN responder has an
// address to fall back on before the game has pinged it.
constexpr const char* kP2pPortValue = "3658";

std::string oakmesh_default_server() { return std::string(kOakmeshHost) + ":31313"; }

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

}  // namespace

std::string edit_extra_env(const std::string& text, const std::string& name, const std::optional<std::string>& value) {
    const std::string prefix = name + "=";
    std::string out;
    auto append = [&out](const std::string& token) {
        if (!out.empty()) out += ' ';
        out += token;
    };
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && is_space(text[i])) ++i;
        std::size_t start = i;
        while (i < text.size() && !is_space(text[i])) ++i;
        if (i == start) break;
        std::string token = text.substr(start, i - start);
        if (token.rfind(prefix, 0) != 0) append(token);
    }
    if (value) append(prefix + *value);
    return out;
}

std::filesystem::path backup_path(const std::filesystem::path& path) {
    std::filesystem::path backup = path;
    backup += ".before-sarnlink";
    return backup;
}

void backup_once(const std::filesystem::path& path) {
    std::error_code ignored;
    const std::filesystem::path backup = backup_path(path);
    if (!std::filesystem::is_regular_file(path, ignored) || std::filesystem::exists(backup, ignored)) return;
    std::ifstream in(path, std::ios::binary);
    if (!in) return;
    std::stringstream bytes;
    bytes << in.rdbuf();
    if (in.bad()) return;
    // Through a temporary file: a half-written backup would be kept for ever.
    write_text_atomic(backup, bytes.str());
}

void route_on(Launcher& launcher) {
    nlohmann::ordered_json& s = launcher.settings;
    // Already routed settings are not the user's: keep the backup taken before.
    if (json_text(s, "online_server", "") != kRoutedServer)
        write_json_atomic(backup_path(launcher.settings_path), s, true);
    s["online"] = true;
    s["online_server"] = kRoutedServer;
    s["online_webapi"] = kRoutedWebapi;
    if (json_text(s, "online_password", "").empty()) s["online_password"] = kRoutedPassword;
    s["extra_env"] = edit_extra_env(json_text(s, "extra_env", ""), kP2pPortName, std::string(kP2pPortValue));
    backup_once(launcher.settings_path);
    write_json_atomic(launcher.settings_path, s, true);
    apply_overrides(launcher, true);
}

void route_off(Launcher& launcher) {
    nlohmann::ordered_json backup = read_json_file(backup_path(launcher.settings_path));
    nlohmann::ordered_json& s = launcher.settings;

    // A backup taken while routed must not route again.
    std::string server = json_text(backup, "online_server", oakmesh_default_server());
    if (server == kRoutedServer) server = oakmesh_default_server();
    std::string webapi = json_text(backup, "online_webapi", "");
    if (webapi == kRoutedWebapi) webapi.clear();
    s["online_server"] = server;
    s["online_webapi"] = webapi;
    if (backup.is_object() && backup.contains("online_npid")) s["online_npid"] = backup["online_npid"];

    // Only the password that route_on put there goes; one set by hand stays.
    if (json_text(s, "online_password", "") == kRoutedPassword) {
        std::string password = json_text(backup, "online_password", "");
        if (password == kRoutedPassword) password.clear();
        s["online_password"] = password;
    }
    s["extra_env"] = edit_extra_env(json_text(s, "extra_env", ""), kP2pPortName, std::nullopt);

    backup_once(launcher.settings_path);
    write_json_atomic(launcher.settings_path, s, true);
    apply_overrides(launcher, false);
}

int route_status(const Launcher& launcher) {
    const nlohmann::ordered_json& s = launcher.settings;
    bool routed = json_int(s, "online", 0) != 0 && json_text(s, "online_server", "") == kRoutedServer &&
                  json_text(s, "online_webapi", "") == kRoutedWebapi && !json_text(s, "online_password", "").empty();
    return routed ? 1 : 0;
}

int run_route(const Config&, const std::wstring& value, const std::wstring& game_dir) {
    try {
        const std::filesystem::path program_folder = own_executable_path().parent_path();
        Launcher launcher(program_folder, wide_path(game_dir));
        // Anything but "on" routes off: a misspelt value must never leave the launcher routed.
        if (value == L"on")
            route_on(launcher);
        else
            route_off(launcher);
        int routed = route_status(launcher);
        std::printf("ok: orlond %s, routed=%d\n", path_text(launcher.game_folder).c_str(), routed);
        std::fflush(stdout);
        return 0;
    } catch (const std::exception& e) {
        std::printf("failed: %s\n", printable(e.what()).c_str());
        std::fflush(stdout);
        return 1;
    }
}

}  // namespace zq
