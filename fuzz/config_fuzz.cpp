// The configuration file as the entry function reads it: the bytes parsed without exceptions
// and without comments, then turned into the settings record.

#include <string>

#include <nlohmann/json.hpp>

#include "fuzz_check.h"
#include "shell/config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    nlohmann::json doc = nlohmann::json::parse(fuzzing::text_of(data, size), nullptr, false, false);
    if (doc.is_discarded()) return 0;

    // Nothing throws; only a broken game_proxy_routes table or a port outside 0..65535 is
    // refused, and it says why.
    bool may_refuse = false;
    if (doc.is_object())
        for (const char* key : {"game_proxy_routes", "tcp_port", "udp_port", "webapi_port", "p2p_port", "port_p2p_port"})
            may_refuse = may_refuse || doc.contains(key);
    zq::Config config;
    std::string problem;
    if (zq::config_from_json(doc, config, problem)) {
        FUZZ_CHECK(problem.empty());
        if (!doc.is_object()) FUZZ_CHECK(config.tcp_port == zq::Config().tcp_port);
    } else {
        FUZZ_CHECK(may_refuse);
        FUZZ_CHECK(!problem.empty());
    }
    return 0;
}
