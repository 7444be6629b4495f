#include "shell/platform.h"
#include "shell/util.h"

#include <algorithm>
#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/random.h>
#include <unistd.h>

namespace zq {

namespace {

std::atomic<bool>* g_stop_flag = nullptr;

extern "C" void on_stop_signal(int) {
    if (g_stop_flag) g_stop_flag->store(true);
}

}  // namespace

std::wstring utf8_to_wide(const std::string& text) {
    std::wstring out;
    for (std::size_t at = 0; at < text.size();) out += static_cast<wchar_t>(next_code_point(text, at));
    return out;
}

std::string wide_to_utf8(const std::wstring& text) {
    std::string out;
    for (wchar_t c : text) append_utf8(static_cast<char32_t>(c), out);
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

FileLock::FileLock(const std::filesystem::path& path, double wait_seconds) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return;
    file_ = fd;
    // A holder keeps the lock for one read and one write of a small file; a wait this long means
    // a process that hangs, and the caller is better told than left waiting with it.
    const double deadline = steady_seconds() + wait_seconds;
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || steady_seconds() >= deadline) return;
        sleep_ms(2);
    }
    held_ = true;
}

FileLock::~FileLock() {
    if (file_ >= 0) ::close(static_cast<int>(file_));  // which lets go of the lock
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

void raise_thread_priority() {
    // A nice value below the one a program started with is a privilege, except as far as
    // RLIMIT_NICE grants it; most systems grant nothing.
    rlimit limit{};
    if (::getrlimit(RLIMIT_NICE, &limit) != 0) return;
    const rlim_t granted = limit.rlim_cur == RLIM_INFINITY ? 40 : std::min<rlim_t>(limit.rlim_cur, 40);
    const int lowest = 20 - static_cast<int>(granted);
    const pid_t thread = ::gettid();
    errno = 0;
    const int now = ::getpriority(PRIO_PROCESS, static_cast<id_t>(thread));
    if (errno != 0) return;
    const int wanted = std::max(now - 10, lowest);
    if (wanted < now) ::setpriority(PRIO_PROCESS, static_cast<id_t>(thread), wanted);
}

void use_few_allocator_pools() { ::mallopt(M_ARENA_MAX, 2); }

// Under a sanitizer its own allocator stands in for glibc's, which then holds nothing to give
// back, and whose first use (its set-up) is not safe on several threads at once.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool glibc_allocates = false;
#else
constexpr bool glibc_allocates = true;
#endif

void release_free_memory() {
    if (glibc_allocates) ::malloc_trim(0);
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

std::string path_text(const std::filesystem::path& path) { return printable(path.native()); }

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
