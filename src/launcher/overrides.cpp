#include "launcher/overrides.h"

#include <string>

#include "launcher/route.h"
#include "shell/deployment.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace zq {

namespace {

constexpr const char* kFirstGameProxy = "http://127.0.0.1:31316";
constexpr const char* kSecondGameProxy = "http://127.0.0.1:31317";
constexpr const char* kWebApi = "http://127.0.0.1:31315";

std::string origin(const char* scheme, const char* host, int port, const char* path = "") {
    return format_text("%s://%s:%d%s", scheme, host, port, path);
}

}  // namespace

const char* const kLiveMapPatch =
    "<?xml version=\"1.0\"?>\n"
    "<Patch>\n"
    "    <TitleID>\n"
    "        <ID>TITL90417</ID>\n"
    "    </TitleID>\n"
    "    <Metadata Title=\"Duskhallow\" Name=\"Live map: play log every 5 s, position every 0.5 s\""
    " Note=\"Uploads the play log every 5 s instead of 300 s and samples the position every 0.5 s instead"
    " of 1.5 s, as velmar does, so the player shows on The Ember Court's live map.\""
    " Author=\"sarnlink (from velmar)\" PatchVer=\"1.0\" AppVer=\"01.09\" AppElf=\"eboot.bin\""
    " isEnabled=\"true\">\n"
    "        <PatchList>\n"
    "            <Line Type=\"float32\" Address=\"0x023F9B8C\" Value=\"5.0\"/>\n"
    "            <Line Type=\"float32\" Address=\"0x023F9B6E\" Value=\"0.5\"/>\n"
    "        </PatchList>\n"
    "    </Metadata>\n"
    "</Patch>\n";

std::filesystem::path overrides_path(const Launcher& launcher) {
    return launcher.user_dir / "host_overrides.custom.json";
}

nlohmann::ordered_json overrides_document() {
    nlohmann::ordered_json doc = nlohmann::ordered_json::object();
    doc["_sarnlink"] =
        "Written by sarnlink: the game's server traffic goes through sarnlink. Move sarnlink's Online switch "
        "to oakmesh to remove.";
    doc[origin("https", kRetailHost, 20443)] = kFirstGameProxy;
    doc[origin("https", kServiceHost, 20443)] = kFirstGameProxy;
    doc[origin("https", kServiceHost, 18671)] = kSecondGameProxy;
    doc[origin("http", kServiceHost, 18671)] = kSecondGameProxy;
    doc[origin("https", kPlayLogTestHost, 443)] = kSecondGameProxy;
    doc[origin("https", kPlayLogHost, 443)] = kSecondGameProxy;
    doc[origin("https", kServiceHost, 18671, "/summon_messenger")] = kWebApi;
    doc[origin("http", kServiceHost, 18671, "/summon_messenger")] = kWebApi;
    return doc;
}

bool is_own_overrides(const std::filesystem::path& path) {
    nlohmann::ordered_json doc = read_json_file(path);
    if (!doc.is_object()) return false;
    if (doc.contains("_sarnlink")) return true;
    return json_text(doc, "_note", "").rfind("sarnlink:", 0) == 0;
}

void apply_overrides(const Launcher& launcher, bool on) {
    const std::filesystem::path path = overrides_path(launcher);
    std::error_code ignored;
    if (on) {
        std::filesystem::create_directories(launcher.user_dir, ignored);
        // A backup already there wins: it is the older of the user's files.
        if (std::filesystem::exists(path, ignored) && !is_own_overrides(path)) backup_once(path);
        write_json_atomic(path, overrides_document(), true);
        return;
    }
    // A missing file and a file of the user's are left alone.
    if (!is_own_overrides(path)) return;
    std::filesystem::remove(path, ignored);
    const std::filesystem::path backup = backup_path(path);
    if (std::filesystem::exists(backup, ignored)) replace_file(backup, path);
}

}  // namespace zq
