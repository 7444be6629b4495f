#include "shell/util.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "shell/platform.h"

namespace zq {

std::string format_text(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list measure;
    va_copy(measure, args);
    int size = std::vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);
    std::string out;
    if (size > 0) {
        out.resize(static_cast<std::size_t>(size));
        std::vsnprintf(out.data(), out.size() + 1, fmt, args);
    }
    va_end(args);
    return out;
}

char32_t next_code_point(std::string_view text, std::size_t& at) {
    auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(at);
    if (lead < 0x80) {
        ++at;
        return lead;
    }
    const int extra = (lead >> 5) == 0x6 ? 1 : (lead >> 4) == 0xE ? 2 : (lead >> 3) == 0x1E ? 3 : 0;
    if (extra == 0) {
        ++at;
        return 0xFFFD;
    }
    char32_t cp = lead & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) {
        if (at + k >= text.size() || (byte(at + k) & 0xC0) != 0x80) {
            ++at;
            return 0xFFFD;
        }
        cp = (cp << 6) | (byte(at + k) & 0x3F);
    }
    static const char32_t min_for[] = {0, 0x80, 0x800, 0x10000};
    if (cp < min_for[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++at;
        return 0xFFFD;
    }
    at += static_cast<std::size_t>(extra) + 1;
    return cp;
}

void append_utf8(char32_t cp, std::string& out) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

namespace {

// Besides the C0 and C1 controls: the marks that turn the direction of what follows, and the
// separators that some consoles take for a line end.
bool shown_escaped(char32_t cp) {
    return cp < 0x20 || (cp >= 0x7F && cp <= 0x9F) || cp == 0x061C || cp == 0x200E || cp == 0x200F ||
           (cp >= 0x2028 && cp <= 0x202E) || (cp >= 0x2066 && cp <= 0x2069);
}

}  // namespace

std::string printable(std::string_view text, std::size_t limit) {
    text = text.substr(0, limit);
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[at]);
        if (c >= 0x20 && c < 0x7F) {  // the common case, byte for byte
            out += static_cast<char>(c);
            ++at;
            continue;
        }
        const char32_t cp = next_code_point(text, at);
        if (!shown_escaped(cp))
            append_utf8(cp, out);
        else if (cp == '\n')
            out += "\\n";
        else if (cp == '\r')
            out += "\\r";
        else if (cp == '\t')
            out += "\\t";
        else if (cp < 0x80)
            out += format_text("\\x%02X", static_cast<unsigned>(cp));
        else
            out += format_text("\\u%04X", static_cast<unsigned>(cp));
    }
    return out;
}

double steady_seconds() {
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                  std::chrono::steady_clock::now().time_since_epoch())
                  .count();
    return static_cast<double>(static_cast<std::int64_t>(ns)) / 1e9;
}

std::optional<std::int64_t> leading_int64(const std::string& text) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    long long value = std::strtoll(begin, &end, 10);
    if (end == begin || errno == ERANGE) return std::nullopt;
    return static_cast<std::int64_t>(value);
}

bool write_text_atomic(const std::filesystem::path& path, const std::string& text) {
    // Each write has a temporary file of its own: two writers (two processes, say) never write
    // into one, and none ever has to remove a file that may be another's.
    static std::atomic<std::uint64_t> writes{0};
    std::uint64_t unique = 0;
    if (!secure_random(&unique, sizeof unique))
        unique = static_cast<std::uint64_t>(steady_seconds() * 1e9) ^ (writes.fetch_add(1) << 48);
    std::filesystem::path tmp = path;
    tmp += format_text(".%016llx.tmp", static_cast<unsigned long long>(unique));
    // A short write (a full disk) removes the temporary file and never replaces a good file.
    if (!write_new_file(tmp, text)) return false;
    if (replace_file(tmp, path)) return true;
    std::error_code ignored;
    std::filesystem::remove(tmp, ignored);
    return false;
}

}  // namespace zq
