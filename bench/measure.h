#pragma once
// What the benchmarks share: a clock, percentiles of a set of samples, and one result line.
// Figures go to standard error: standard output carries the program's own log.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace bench {

inline double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The p-th percentile (0..100) in microseconds of samples in seconds; sorts them.
inline double percentile_us(std::vector<double>& samples, double p) {
    if (samples.empty()) return 0.0;
    std::sort(samples.begin(), samples.end());
    std::size_t at = static_cast<std::size_t>(p / 100.0 * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[at] * 1e6;
}

inline void report(const std::string& what, double per_second, std::vector<double> latencies = {}) {
    if (latencies.empty()) {
        std::fprintf(stderr, "%-56s %10.0f /s\n", what.c_str(), per_second);
    } else {
        const double median = percentile_us(latencies, 50), p99 = percentile_us(latencies, 99);
        std::fprintf(stderr, "%-56s %10.0f /s   median %7.1f us   p99 %7.1f us\n", what.c_str(), per_second, median, p99);
    }
    std::fflush(stderr);
}

// Ours against the anchor measured in the same run, and whether the target holds. With
// higher_is_better, ratio = ours / anchor and must reach target; otherwise the ratio is the
// same division and must stay at or under it.
inline void ratio(const std::string& what, double ours, double anchor, double target, bool higher_is_better = true) {
    if (anchor <= 0) {
        std::fprintf(stderr, "%-56s no anchor figure\n", what.c_str());
        return;
    }
    const double r = ours / anchor;
    const bool met = higher_is_better ? r >= target : r <= target;
    std::fprintf(stderr, "%-56s %8.2fx   (target %s %.2fx: %s)\n", what.c_str(), r, higher_is_better ? ">=" : "<=",
                 target, met ? "met" : "NOT met");
    std::fflush(stderr);
}

}  // namespace bench
