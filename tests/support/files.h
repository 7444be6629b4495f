#pragma once
// Whole-file reads and writes for tests that set up or inspect a player's files.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "shell/platform.h"

namespace testing_support {

// File names that text handling gets wrong, each with the extension: a non-ASCII one, and one
// that is no Unicode at all as the system keeps names (a byte that is no UTF-8 on POSIX, an
// unpaired UTF-16 surrogate on Windows). Wine cannot store the second: there it is left out.
inline std::vector<std::filesystem::path> odd_file_names(const std::string& extension, bool under_wine) {
    using Native = std::filesystem::path::string_type;
    Native broken{'b', 'r', 'o', 'k', 'e', 'n', '-'};
    broken.push_back(static_cast<Native::value_type>(sizeof(Native::value_type) == 1 ? 0xFF : 0xD800));
    std::filesystem::path unconvertible(broken);
    unconvertible += extension;
    std::vector<std::filesystem::path> names{zq::utf8_path("zust\xC3\xA4nde" + extension)};
    if (!under_wine) names.push_back(unconvertible);
    return names;
}

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
