#include "web/paths.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace zq::web {

std::string path_without_query(std::string_view target) {
    return std::string(target.substr(0, target.find('?')));
}

std::vector<std::string> path_segments(std::string_view path) {
    std::vector<std::string> segments;
    if (path.empty()) return segments;
    std::string_view rest = path.substr(1);
    for (;;) {
        auto slash = rest.find('/');
        segments.emplace_back(rest.substr(0, slash));
        if (slash == std::string_view::npos) break;
        rest = rest.substr(slash + 1);
    }
    return segments;
}

std::int32_t query_offset(std::string_view target) {
    auto mark = target.find('?');
    if (mark == std::string_view::npos) return 0;
    std::string query(target.substr(mark + 1));
    auto at = query.find("offset=");
    if (at == std::string::npos || (at != 0 && query[at - 1] != '&')) return 0;
    // atoi's reading, without its undefined result for values out of range.
    const char* digits = query.c_str() + at + 7;
    errno = 0;
    long long value = std::strtoll(digits, nullptr, 10);
    if (errno == ERANGE || value > INT_MAX || value < INT_MIN) return 0;
    return static_cast<std::int32_t>(value);
}

}  // namespace zq::web
