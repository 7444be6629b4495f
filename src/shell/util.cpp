#include "shell/util.h"

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
    std::filesystem::path tmp = path;
    tmp += ".tmp";
    // A short write (a full disk) removes the temporary file and never replaces a good file.
    if (!write_new_file(tmp, text)) return false;
    return replace_file(tmp, path);
}

}  // namespace zq
