#pragma once
// Whole-file reads and writes for tests that set up or inspect a player's files.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace testing_support {

inline std::string read_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Creates the folders on the way, as a player's tree would already have them.
inline void write_file(const std::filesystem::path& path, const std::string& text) {
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

}  // namespace testing_support
