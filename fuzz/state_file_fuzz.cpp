// The state file as the account commands and the bridge's logins read it: whatever lies on disk
// comes back as an object (or, for the bridge, as the document it holds), the accounts are found
// or made, every record's keys are read, and a read-modify-write puts back what it read.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <nlohmann/json.hpp>

#include "accounts/state_file.h"
#include "bridge/bridge.h"
#include "fuzz_check.h"
#include "shell/config.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace {

const std::filesystem::path& scratch_file() {
    // One file per fuzzing process, so parallel jobs do not share it. Never destroyed, so the
    // exit handler that removes it can still read its name.
    static const std::filesystem::path* const path = [] {
        std::random_device random;
        auto name = "state_file_fuzz." + std::to_string(random()) + ".json";
        auto* made = new std::filesystem::path(std::filesystem::temp_directory_path() / name);
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove(scratch_file(), ignored);
            std::filesystem::remove(scratch_file().string() + ".tmp", ignored);
        });
        return made;
    }();
    return *path;
}

zq::Bridge& bridge() {
    // Never started: only its state file reader is used.
    static zq::Bridge* const made = [] {
        zq::Config config;
        config.p2p_gateway = false;
        config.state_file = zq::wide_to_utf8(scratch_file().wstring());
        return new zq::Bridge(config);
    }();
    return *made;
}

void write_bytes(const std::string& bytes) {
    std::ofstream out(scratch_file(), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes = fuzzing::text_of(data, size);
    write_bytes(bytes);

    nlohmann::json root = zq::read_state_file(scratch_file());
    FUZZ_CHECK(root.is_object());
    const nlohmann::json parsed = zq::parse_state_text(bytes);
    FUZZ_CHECK(parsed.is_object() ? root == parsed : root.empty());

    // The bridge's reader gives the document whatever its type, and an empty object for text
    // that is no JSON.
    const nlohmann::json loaded = bridge().load_state();
    FUZZ_CHECK(parsed.is_discarded() ? loaded == nlohmann::json::object() : loaded == parsed);

    nlohmann::json extra_keys = root;
    extra_keys.erase("accounts");
    nlohmann::json& accounts = zq::ensure_accounts(root);
    FUZZ_CHECK(accounts.is_object());
    for (const auto& [name, record] : accounts.items()) {
        // Records of any shape: the tolerant readers turn each value into text.
        for (const char* key : {"velmar_name", "token", "online_id", "recovery_code", "linked"}) {
            (void)zq::json_text(record, key, name);
            (void)zq::json_has(record, key);
        }
    }

    // A writer replaces one record and writes the whole back: the root keys it did not touch,
    // and the other records, survive, and text the parser took is text the writer can write.
    accounts["fuzz"] = {{"velmar_name", "fuzz"}, {"token", "t"}, {"online_id", "fuzz"}, {"recovery_code", "c"}};
    try {
        FUZZ_CHECK(zq::write_json_atomic(scratch_file(), root, false));
    } catch (const nlohmann::json::exception&) {
        FUZZ_CHECK(false);
    }
    const nlohmann::json back = zq::read_state_file(scratch_file());
    FUZZ_CHECK(back == root);
    for (const auto& [key, value] : extra_keys.items()) FUZZ_CHECK(back.contains(key) && back[key] == value);
    return 0;
}
