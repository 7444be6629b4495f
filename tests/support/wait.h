#pragma once

#include <chrono>
#include <thread>

namespace testing_support {

// Waits until the condition holds or the deadline passes; returns the last result.
template <class Condition>
bool wait_until(Condition condition, double seconds = 10.0) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace testing_support
