#pragma once
// One request to the stand-in of The Ember Court and its answer, free of any transport: the
// development server and the tests' fake service both turn their HTTP requests into these.

#include <string>

#include <nlohmann/json.hpp>

namespace standin {

struct Call {
    std::string path;   // without the query
    std::string token;  // the X-ZQ-Token header, "" when absent
    nlohmann::json body = nlohmann::json::object();  // an object, whatever was sent
};

struct Answer {
    int status = 200;
    nlohmann::json body;
};

// The service's refusal: ResKind 1 with a message, on HTTP 200.
inline Answer refused(const std::string& message, int kind = 1) {
    return Answer{200, {{"ResKind", kind}, {"Message", message}}};
}

}  // namespace standin
