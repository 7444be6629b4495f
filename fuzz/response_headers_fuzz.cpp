// The head of an upstream HTTP response as the client splits it into a header list, and the
// lookups that read it.

#include <string>

#include "fuzz_check.h"
#include "http/headers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string raw = fuzzing::text_of(data, size);
    const http::HeaderList headers = http::split_raw_headers(raw);
    for (const auto& [name, value] : headers) {
        FUZZ_CHECK(name.find_first_of(":\n") == std::string::npos);
        FUZZ_CHECK(value.find('\n') == std::string::npos);
        FUZZ_CHECK(http::trim_header(name) == name && http::trim_header(value) == value);
        // A lookup by any spelling of a present name finds a value of that name.
        std::string upper = name;
        for (char& c : upper) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
        FUZZ_CHECK(http::iequals(upper, name));
        const std::string found = http::find_header(headers, upper);
        bool matches = false;
        for (const auto& [n, v] : headers) matches = matches || (http::iequals(n, name) && v == found);
        FUZZ_CHECK(matches);
    }
    (void)http::find_header(headers, "Content-Type");

    // Lines fed one block after another give the same list as all at once, as long as the cut
    // falls on a line end.
    const std::size_t first = raw.find('\n');
    if (first != std::string::npos) {
        const std::string lines = raw.substr(first + 1);
        const std::size_t cut = lines.find('\n', lines.size() / 2);
        if (cut != std::string::npos) {
            http::HeaderList pieces;
            http::append_header_lines(std::string_view(lines).substr(0, cut + 1), pieces);
            http::append_header_lines(std::string_view(lines).substr(cut + 1), pieces);
            FUZZ_CHECK(pieces == headers);
        }
    }
    return 0;
}
