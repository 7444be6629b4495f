#pragma once
// Traffic capture: the bodies of selected proxied calls, written beside the state file when
// tracing. A capture must never disturb the call that it records.

#include <cstdint>
#include <string>

namespace zq::web {

// Writes one call into the folder "captures" beside state_file (as the settings name it). Never
// throws: a failure is logged and the call goes on.
void capture_traffic(const std::string& state_file, const std::string& name, const std::string& request_body,
                     std::int32_t status, const std::string& response_body, const std::string& note);

}  // namespace zq::web
