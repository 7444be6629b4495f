#pragma once
// What nearly every test file uses: GoogleTest, the JSON type, the small helpers of tests/support,
// and their names brought in once here instead of a block of using-declarations per file.

#include <gtest/gtest.h>

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>

#include "support/files.h"
#include "support/ports.h"
#include "support/wait.h"

namespace testing_support {

// Raw bytes written as numbers, for frames and datagrams built by hand.
inline std::string bytes(std::initializer_list<int> list) {
    std::string out;
    for (int b : list) out.push_back(static_cast<char>(b));
    return out;
}

}  // namespace testing_support

using nlohmann::json;
using namespace std::string_literals;
using namespace testing_support;
