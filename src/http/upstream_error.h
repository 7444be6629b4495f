#pragma once
// The one exception of the upstream layer: a text and nothing else. Callers that must tell
// cases apart read its words, so the wording where it is raised is part of the interface.

#include <stdexcept>
#include <string>

namespace zq {

class BridgeError : public std::runtime_error {
public:
    explicit BridgeError(const std::string& text) : std::runtime_error(text) {}
    explicit BridgeError(const char* text) : std::runtime_error(text) {}
};

}  // namespace zq
