#pragma once
// The small text rules by which the web API and the proxies read a request target. Pure.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zq::web {

// The target up to its first '?', or all of it.
std::string path_without_query(std::string_view target);

// The path split at '/', starting after its first character: "/v1/users/a/feed" gives four
// segments, a trailing slash a last empty one, an empty path none.
std::vector<std::string> path_segments(std::string_view path);

// The value of "offset=" in the query behind the target's first '?'. Only its first occurrence
// counts, and only at the start of the query or right behind a '&'; the digits are read like
// atoi, so a bad value gives 0.
std::int32_t query_offset(std::string_view target);

}  // namespace zq::web
