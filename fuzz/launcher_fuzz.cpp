// The launcher's files: settings.json and host_overrides.custom.json read from disk, and the
// extra_env edit that routing applies to the settings and takes back again.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "fuzz_check.h"
#include "launcher/discovery.h"
#include "launcher/overrides.h"
#include "launcher/route.h"
#include "shell/util.h"

namespace {

const std::string kName = "NIMBRA7_P2P_PORT";
const std::string kPrefix = kName + "=";

const std::filesystem::path& scratch_file() {
    // One file per fuzzing process, so parallel jobs do not share it. Never destroyed, so the
    // exit handler that removes the file can still read its name.
    static const std::filesystem::path* const path = [] {
        std::random_device random;
        auto name = "launcher_fuzz." + std::to_string(random()) + ".json";
        auto* made = new std::filesystem::path(std::filesystem::temp_directory_path() / name);
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove(scratch_file(), ignored);
        });
        return made;
    }();
    return *path;
}

std::vector<std::string> tokens(const std::string& joined) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start <= joined.size()) {
        std::size_t blank = joined.find(' ', start);
        if (blank == std::string::npos) blank = joined.size();
        out.push_back(joined.substr(start, blank - start));
        start = blank + 1;
    }
    return out;
}

// Single blanks between non-empty tokens, and a token of ours only where one was asked for.
void check_joined(const std::string& out, const std::optional<std::string>& value) {
    if (out.empty()) {
        FUZZ_CHECK(!value);
        return;
    }
    std::vector<std::string> parts = tokens(out);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        FUZZ_CHECK(!parts[i].empty());
        const bool ours = parts[i].rfind(kPrefix, 0) == 0;
        FUZZ_CHECK(!ours || (value && i + 1 == parts.size() && parts[i] == kPrefix + *value));
    }
    if (value) FUZZ_CHECK(parts.back() == kPrefix + *value);
}

void check_extra_env(const std::string& text) {
    const std::optional<std::string> on = std::string("3658");
    const std::string routed = zq::edit_extra_env(text, kName, on);
    const std::string plain = zq::edit_extra_env(text, kName, std::nullopt);
    check_joined(routed, on);
    check_joined(plain, std::nullopt);
    // Routing twice changes nothing, and routing off after on gives what off alone gives.
    FUZZ_CHECK(zq::edit_extra_env(routed, kName, on) == routed);
    FUZZ_CHECK(zq::edit_extra_env(routed, kName, std::nullopt) == plain);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes = fuzzing::text_of(data, size);
    const std::filesystem::path& path = scratch_file();
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    nlohmann::ordered_json doc = zq::read_json_file(path);
    const bool own = zq::is_own_overrides(path);
    FUZZ_CHECK(!own || doc.is_object());
    if (doc.is_object()) {
        // Whatever the launcher left in its keys, the tolerant readers must cope with it.
        for (const char* key : {"extra_env", "online_server", "online_webapi", "game_dir", "user_dir"}) {
            (void)zq::json_text(doc, key, "");
            (void)zq::json_int(doc, key, 0);
        }
        check_extra_env(zq::json_text(doc, "extra_env", ""));
    }
    check_extra_env(bytes);
    return 0;
}
