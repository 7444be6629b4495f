#pragma once
// Collects the program's log lines for the life of the object, for tests that compare them.

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "shell/log.h"
#include "support/wait.h"

namespace testing_support {

class LogCapture {
public:
    LogCapture() {
        zq::set_log_sink([this](const std::string& line) {
            std::lock_guard<std::mutex> guard(lock_);
            lines_.push_back(line);
        });
    }
    ~LogCapture() { zq::set_log_sink(nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Lines whose text (after the time and " [sarnlink] ") is exactly text.
    int count(const std::string& text) const {
        std::lock_guard<std::mutex> guard(lock_);
        return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const std::string& l) {
            return l.size() >= prefix_size && l.compare(prefix_size, std::string::npos, text) == 0;
        }));
    }
    // Whether any line holds the text anywhere.
    bool contains(const std::string& text) const {
        std::lock_guard<std::mutex> guard(lock_);
        return std::any_of(lines_.begin(), lines_.end(),
                           [&](const std::string& l) { return l.find(text) != std::string::npos; });
    }
    // Lines that hold the text anywhere.
    int count_containing(const std::string& text) const {
        std::lock_guard<std::mutex> guard(lock_);
        return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const std::string& l) {
            return l.find(text) != std::string::npos;
        }));
    }
    bool wait_for(const std::string& exact_text, double seconds = 10.0) const {
        return wait_until([&] { return count(exact_text) > 0; }, seconds);
    }
    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> guard(lock_);
        return lines_;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(lock_);
        lines_.clear();
    }

private:
    static constexpr std::size_t prefix_size = 20;  // "HH:MM:SS [sarnlink] "
    mutable std::mutex lock_;
    std::vector<std::string> lines_;
};

}  // namespace testing_support
