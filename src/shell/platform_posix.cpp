#include "shell/platform.h"

#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/random.h>
#include <unistd.h>

namespace zq {

namespace {

// Decodes one UTF-8 sequence at text[i]; malformed input yields U+FFFD and one byte consumed.
char32_t decode_utf8(const std::string& text, std::size_t& i) {
    auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    unsigned char lead = byte(i);
    if (lead < 0x80) {
        ++i;
        return lead;
    }
    int extra = (lead >> 5) == 0x6 ? 1 : (lead >> 4) == 0xE ? 2 : (lead >> 3) == 0x1E ? 3 : 0;
    if (extra == 0) {
        ++i;
        return 0xFFFD;
    }
    char32_t cp = lead & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) {
        if (i + k >= text.size() || (byte(i + k) & 0xC0) != 0x80) {
            ++i;
            return 0xFFFD;
        }
        cp = (cp << 6) | (byte(i + k) & 0x3F);
    }
    static const char32_t min_for[] = {0, 0x80, 0x800, 0x10000};
    if (cp < min_for[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++i;
        return 0xFFFD;
    }
    i += extra + 1;
    return cp;
}

void encode_utf8(char32_t cp, std::string& out) {
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

std::atomic<bool>* g_stop_flag = nullptr;

extern "C" void on_stop_signal(int) {
    if (g_stop_flag) g_stop_flag->store(true);
}

}  // namespace

std::wstring utf8_to_wide(const std::string& text) {
    std::wstring out;
    for (std::size_t i = 0; i < text.size();) out += static_cast<wchar_t>(decode_utf8(text, i));
    return out;
}

std::string wide_to_utf8(const std::wstring& text) {
    std::string out;
    for (wchar_t c : text) encode_utf8(static_cast<char32_t>(c), out);
    return out;
}

std::vector<std::wstring> command_line_args(int argc, char** argv) {
    std::vector<std::wstring> args;
    for (int i = 1; i < argc; ++i) args.push_back(utf8_to_wide(argv[i]));
    return args;
}

namespace {

int open_new_private(const std::filesystem::path& path) {
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

}  // namespace

bool write_new_file(const std::filesystem::path& path, const std::string& text) {
    int fd = open_new_private(path);
    if (fd < 0 && errno == EEXIST) {
        // A plain file left by a write that was cut short is ours to replace; a link or a folder
        // in its place is not followed or touched.
        struct stat info {};
        if (::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::unlink(path.c_str()) == 0)
            fd = open_new_private(path);
    }
    if (fd < 0) return false;
    bool ok = true;
    std::size_t done = 0;
    while (ok && done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) ok = false;
        else done += static_cast<std::size_t>(n);
    }
    if (ok && ::fsync(fd) != 0) ok = false;
    if (::close(fd) != 0) ok = false;
    if (!ok) ::unlink(path.c_str());
    return ok;
}

bool replace_file(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (std::rename(from.c_str(), to.c_str()) != 0) return false;
    // The rename itself reaches the medium only with its folder.
    std::filesystem::path folder = to.parent_path();
    if (folder.empty()) folder = ".";
    int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
    return true;
}

std::filesystem::path own_executable_path() {
    std::error_code ec;
    auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path() : p;
}

void install_stop_handler(std::atomic<bool>* flag) {
    g_stop_flag = flag;
    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
}

void sleep_ms(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

std::optional<std::string> get_env(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    if (!value) return std::nullopt;
    return std::string(value);
}

std::string computer_name() {
    if (auto name = get_env("COMPUTERNAME"); name && !name->empty()) return *name;
    char buffer[256] = {};
    if (gethostname(buffer, sizeof buffer - 1) != 0) return std::string();
    return buffer;
}

std::tm local_time(std::time_t t) {
    std::tm out{};
    localtime_r(&t, &out);
    return out;
}

ProcessUsage process_usage() {
    ProcessUsage usage;
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("Threads:", 0) == 0) usage.threads = std::atoi(line.c_str() + 8);
        // In kB, whatever the line's unit word says.
        if (line.rfind("VmRSS:", 0) == 0) usage.memory_bytes = std::strtoull(line.c_str() + 6, nullptr, 10) * 1024;
    }
    return usage;
}

// File names on POSIX are bytes; the program's text is UTF-8, and so are the names it makes.
std::filesystem::path wide_path(const std::wstring& text) { return std::filesystem::path(wide_to_utf8(text)); }

std::filesystem::path utf8_path(const std::string& text) { return std::filesystem::path(text); }

std::string path_utf8(const std::filesystem::path& path) { return path.string(); }

bool secure_random(void* out, std::size_t size) {
    auto* bytes = static_cast<unsigned char*>(out);
    while (size > 0) {
        ssize_t n = getrandom(bytes, size, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        bytes += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

void ignore_broken_pipe() { std::signal(SIGPIPE, SIG_IGN); }

}  // namespace zq
