// The configuration file as the entry function reads it: the bytes parsed without exceptions
// and without comments, then turned into the settings record.

#include <stdexcept>

#include <nlohmann/json.hpp>

#include "fuzz_check.h"
#include "shell/config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    nlohmann::json doc = nlohmann::json::parse(fuzzing::text_of(data, size), nullptr, false, false);
    if (doc.is_discarded()) return 0;

    // Only a broken game_proxy_routes table may throw; every other key is read tolerantly.
    const bool has_routes = doc.is_object() && doc.contains("game_proxy_routes") &&
                            doc["game_proxy_routes"].is_object();
    try {
        zq::Config config = zq::config_from_json(doc);
        if (!doc.is_object()) FUZZ_CHECK(config.tcp_port == zq::Config().tcp_port);
    } catch (const nlohmann::json::type_error&) {
        FUZZ_CHECK(has_routes);
    } catch (const std::invalid_argument&) {
        FUZZ_CHECK(has_routes);
    } catch (const std::out_of_range&) {
        FUZZ_CHECK(has_routes);
    }
    return 0;
}
