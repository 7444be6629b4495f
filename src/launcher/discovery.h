#pragma once
// Finds the orlond launcher's settings under APPDATA and the game's folders. Changes no file.

#include <cstdint>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "launcher/setup_error.h"

namespace zq {

// How Launcher::game_folder was found.
enum FoundBy : std::uint32_t {
    FoundByNothing = 0,
    FoundByArgument = 1,
    FoundBesideProgram = 2,
    FoundByLauncher = 3,
};

struct Launcher {
    std::filesystem::path game_folder;
    std::filesystem::path settings_path;
    std::filesystem::path user_dir;     // receives host_overrides.custom.json
    std::filesystem::path patches_dir;
    std::uint32_t found_by = FoundByNothing;
    // The whole settings.json; ordered so that a rewrite keeps the launcher's key order.
    nlohmann::ordered_json settings;
    std::filesystem::path program_folder;
    std::filesystem::path folder_argument;  // --orlond, may be empty

    // Performs the whole discovery; throws SetupError with the text for the user.
    Launcher(std::filesystem::path program_folder, std::filesystem::path folder_argument);
};

// The JSON in a file, key order kept; null when it cannot be opened or does not parse.
nlohmann::ordered_json read_json_file(const std::filesystem::path& path);

// True when the folder holds Duskhallow.exe or Play Duskhallow.exe as a regular file.
bool holds_game(const std::filesystem::path& folder);

}  // namespace zq
