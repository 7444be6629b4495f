#include "launcher/discovery.h"

#include <fstream>
#include <sstream>

#include "shell/platform.h"
#include "shell/util.h"

namespace zq {

namespace {

// The launcher's own limit on the APPDATA text, in wide characters, terminator included.
constexpr std::size_t kAppDataLimit = 260;

bool is_regular(const std::filesystem::path& path) {
    std::error_code ignored;
    return std::filesystem::is_regular_file(path, ignored);
}

}  // namespace

nlohmann::ordered_json read_json_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return nullptr;
    std::stringstream text;
    text << in.rdbuf();
    auto doc = nlohmann::ordered_json::parse(text.str(), nullptr, false, false);
    if (doc.is_discarded()) return nullptr;
    return doc;
}

bool holds_game(const std::filesystem::path& folder) {
    return is_regular(folder / "Duskhallow.exe") || is_regular(folder / "Play Duskhallow.exe");
}

Launcher::Launcher(std::filesystem::path program_folder_in, std::filesystem::path folder_argument_in)
    : program_folder(std::move(program_folder_in)), folder_argument(std::move(folder_argument_in)) {
    auto appdata = get_env("APPDATA");
    if (!appdata || appdata->empty() || utf8_to_wide(*appdata).size() >= kAppDataLimit)
        throw SetupError("APPDATA is not set");
    const std::filesystem::path roaming = utf8_path(*appdata);

    // The plain launcher wins over the co-op one when a machine has both.
    for (const char* folder : {"orlond-launcher", "orlond-launcher-coop"}) {
        std::filesystem::path candidate = roaming / folder / "settings.json";
        if (is_regular(candidate)) {
            settings_path = candidate;
            break;
        }
    }
    if (settings_path.empty())
        throw SetupError("orlond launcher settings not found. Start the orlond launcher once and close it.");

    settings = read_json_file(settings_path);
    if (!settings.is_object()) throw SetupError("the orlond launcher's settings.json cannot be read");

    // The launcher's game_dir names the game's executable, so its parent is the folder.
    const std::filesystem::path launcher_game = utf8_path(json_text(settings, "game_dir", "")).parent_path();
    const std::pair<std::filesystem::path, std::uint32_t> candidates[] = {
        {folder_argument, FoundByArgument},
        {program_folder.parent_path(), FoundBesideProgram},
        {program_folder, FoundBesideProgram},
        {launcher_game, FoundByLauncher},
    };
    for (const auto& [folder, how] : candidates) {
        if (!folder.empty() && holds_game(folder)) {
            game_folder = folder;
            found_by = how;
            break;
        }
    }
    if (found_by == FoundByNothing)
        throw SetupError("orlond folder not found - choose the folder with Duskhallow.exe.");

    std::string user = json_text(settings, "user_dir", "");
    user_dir = user.empty() ? game_folder / "user" : utf8_path(user);
    std::string patches = json_text(settings, "patches_dir", "");
    patches_dir = patches.empty() ? game_folder / "patches" : utf8_path(patches);
}

}  // namespace zq
