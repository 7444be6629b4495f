#pragma once
// What the fuzz targets share: turning the input into text, and a check that stops the run
// with a message when a property of the code under test does not hold.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzzing {

inline std::string text_of(const std::uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// A failed property is a finding like a crash: abort so libFuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                        \
    do {                                                                             \
        if (!(condition)) {                                                          \
            std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, \
                         #condition);                                                \
            std::abort();                                                            \
        }                                                                            \
    } while (false)

}  // namespace fuzzing
