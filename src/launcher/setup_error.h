#pragma once
// The one failure of launcher discovery and routing: a text for the user and nothing else.

#include <stdexcept>
#include <string>

namespace zq {

class SetupError : public std::runtime_error {
public:
    explicit SetupError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace zq
