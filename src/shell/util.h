#pragma once
// Small helpers that every subsystem uses: the address record, text formatting, the clock,
// tolerant JSON member readers and the one way of replacing a JSON file.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace zq {

// An IPv4 address as host text and port. Usable when the host is set and the port is 1..65535.
struct Endpoint {
    std::string host;
    std::int32_t port = 0;

    bool usable() const { return !host.empty() && port >= 1 && port <= 65535; }
    std::string text() const { return host + ":" + std::to_string(port); }
    bool operator==(const Endpoint&) const = default;
};

// printf-style formatting into a string; a failed or empty measure gives "".
std::string format_text(const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

// Text from outside (other players' names, paths, what a service or a stranger sent) as it may
// stand on a console or in a log: control characters become visible escapes ("\n", "\x1B",
// "\u009B"), so that no text can move the cursor, retitle the window or fake a line of its own,
// and bytes that are no UTF-8 become U+FFFD. Everything else, letters of any script included,
// stays as it is. Applying it twice changes nothing more. Only the first `limit` bytes are
// looked at, so that what a stranger sends cannot make a line as long as it likes.
std::string printable(std::string_view text, std::size_t limit = std::string_view::npos);

// The code point that starts at `at` in UTF-8 text, moving `at` past it. A malformed or overlong
// sequence, a surrogate or a value above U+10FFFF gives U+FFFD and moves one byte.
char32_t next_code_point(std::string_view text, std::size_t& at);
// Appends a code point as UTF-8; a surrogate or a value above U+10FFFF goes as U+FFFD.
void append_utf8(char32_t code_point, std::string& out);

// Monotonic seconds; only differences mean anything.
double steady_seconds();

// Strict base-10 text-to-integer in the manner of strtoll: leading blanks skipped,
// text behind the digits ignored. Empty when there is no number or it is out of range.
std::optional<std::int64_t> leading_int64(const std::string& text);

// True only for an object that holds the key with a non-null value.
template <class Json>
bool json_has(const Json& value, const std::string& key) {
    if (!value.is_object()) return false;
    auto it = value.find(key);
    return it != value.end() && !it->is_null();
}

// A member as a 64-bit integer, converted where that makes sense; never throws.
template <class Json>
std::int64_t json_int(const Json& value, const std::string& key, std::int64_t fallback) {
    if (!json_has(value, key)) return fallback;
    const Json& member = value.at(key);
    if (member.is_number_unsigned()) return static_cast<std::int64_t>(member.template get<std::uint64_t>());
    if (member.is_number_integer()) return member.template get<std::int64_t>();
    if (member.is_number_float()) {
        double d = member.template get<double>();
        if (!(d > -9.2233720368547758e18 && d < 9.2233720368547758e18)) return fallback;
        return static_cast<std::int64_t>(d);
    }
    if (member.is_boolean()) return member.template get<bool>() ? 1 : 0;
    if (member.is_string()) return leading_int64(member.template get<std::string>()).value_or(fallback);
    return fallback;
}

// A member as text: strings as they are, integers in decimal, anything else as compact JSON.
template <class Json>
std::string json_text(const Json& value, const std::string& key, const std::string& fallback) {
    if (!json_has(value, key)) return fallback;
    const Json& member = value.at(key);
    if (member.is_string()) return member.template get<std::string>();
    if (member.is_number_unsigned()) return std::to_string(member.template get<std::uint64_t>());
    if (member.is_number_integer()) return std::to_string(member.template get<std::int64_t>());
    return member.dump();
}

// Writes text to a temporary file of its own beside the path ("<path>.<random>.tmp") and
// renames it over the path in one step, so a reader sees the old or the new file and never a
// part. The file is private to its owner (0600 on POSIX:
// the state file holds tokens) and is on the medium when this returns. True when the file
// was written and moved.
bool write_text_atomic(const std::filesystem::path& path, const std::string& text);

// Replaces a JSON file atomically, indented by 2, non-ASCII kept as raw UTF-8.
// Text that is not valid UTF-8 throws the JSON library's exception before anything is written.
template <class Json>
bool write_json_atomic(const std::filesystem::path& path, const Json& doc, bool final_newline) {
    std::string text = doc.dump(2, ' ', false, Json::error_handler_t::strict);
    if (final_newline) text += '\n';
    return write_text_atomic(path, text);
}

}  // namespace zq
