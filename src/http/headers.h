#pragma once
// Header lists and the small text rules that the HTTP client and the embedded server share.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace http {

// Ordered (name, value) pairs: names keep their spelling, duplicates and order are kept.
using HeaderList = std::vector<std::pair<std::string, std::string>>;

// Same length and the same bytes after C-locale lower-casing.
bool iequals(std::string_view a, std::string_view b);

// The value of the first pair whose name iequals name, or "".
std::string find_header(const HeaderList& headers, std::string_view name);

// Blanks and tabs off the start; blanks, tabs and carriage returns off the end.
std::string trim_header(std::string_view text);

// Appends the pairs of header lines separated by line feeds. A line's first ':' separates name
// and value, both trimmed; a line without one is skipped.
void append_header_lines(std::string_view lines, HeaderList& out);

// A raw response head (status line, then header lines) as a list: the status line is dropped.
HeaderList split_raw_headers(std::string_view raw);

}  // namespace http
