#include "http/headers.h"

namespace http {

namespace {

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

bool iequals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

std::string find_header(const HeaderList& headers, std::string_view name) {
    for (const auto& [n, v] : headers)
        if (iequals(n, name)) return v;
    return std::string();
}

std::string trim_header(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size() && (text[begin] == ' ' || text[begin] == '\t')) ++begin;
    std::size_t end = text.size();
    while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t' || text[end - 1] == '\r')) --end;
    return std::string(text.substr(begin, end - begin));
}

void append_header_lines(std::string_view lines, HeaderList& out) {
    while (!lines.empty()) {
        std::size_t eol = lines.find('\n');
        std::string_view line = lines.substr(0, eol);
        lines = eol == std::string_view::npos ? std::string_view() : lines.substr(eol + 1);
        std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        out.emplace_back(trim_header(line.substr(0, colon)), trim_header(line.substr(colon + 1)));
    }
}

HeaderList split_raw_headers(std::string_view raw) {
    HeaderList out;
    std::size_t eol = raw.find('\n');
    if (eol != std::string_view::npos) append_header_lines(raw.substr(eol + 1), out);
    return out;
}

}  // namespace http
