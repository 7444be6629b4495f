// The embedded HTTP server's requests as they arrive on one connection: heads cut at the blank
// line, parsed, and their bodies taken by Content-Length, pipelined one after another. The cut
// follows the server's own loop, which does it on its socket buffer.

#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "http/server.h"

namespace {

bool clean_word(const std::string& word) {
    return word.find_first_of(" \t\n") == std::string::npos;
}

// Trimmed on both sides and never across a line.
bool clean_header_text(const std::string& text) {
    if (text.find('\n') != std::string::npos) return false;
    if (!text.empty() && (text.front() == ' ' || text.front() == '\t')) return false;
    if (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string buffer = fuzzing::text_of(data, size);
    while (true) {
        const std::size_t end = buffer.find("\r\n\r\n");
        if (end == std::string::npos) break;
        const http::RequestHead head = http::parse_request_head(std::string_view(buffer).substr(0, end));
        buffer.erase(0, end + 4);
        FUZZ_CHECK(clean_word(head.method) && clean_word(head.path) && clean_word(head.version));
        for (const auto& [name, value] : head.headers) {
            FUZZ_CHECK(clean_header_text(name) && name.find(':') == std::string::npos);
            FUZZ_CHECK(clean_header_text(value));
        }

        const http::BodyLength announced = http::body_length(head.headers, http::max_request_body);
        if (announced.kind != http::BodyLength::Ok) {
            // Refused: an error status, and nothing after it is read as a request.
            FUZZ_CHECK(announced.kind == http::BodyLength::Malformed || announced.bytes > http::max_request_body);
            break;
        }
        const std::uint64_t length = announced.bytes;
        if (length > buffer.size()) break;  // the server would wait for the rest
        http::ServerResponse response;
        response.body = buffer.substr(0, static_cast<std::size_t>(length));
        buffer.erase(0, static_cast<std::size_t>(length));

        // A HEAD answer is the full answer without its body, the length still announced.
        response.headers = head.headers;
        const std::string full = http::format_response(response, true, false);
        const std::string bare = http::format_response(response, true, true);
        FUZZ_CHECK(full.size() == bare.size() + response.body.size());
        FUZZ_CHECK(full.compare(0, bare.size(), bare) == 0);
        FUZZ_CHECK(bare.compare(0, 9, "HTTP/1.1 ") == 0);
    }
    return 0;
}
