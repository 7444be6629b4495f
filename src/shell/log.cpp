#include "shell/log.h"

#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>

#include "shell/platform.h"
#include "shell/util.h"

namespace zq {

namespace {

std::mutex log_lock;
std::unique_ptr<std::ofstream> log_file;
std::function<void(const std::string&)> log_sink;

// Per-cause windows for log_limited. The number of causes is fixed by the code that names
// them, so the map stays small.
struct CauseWindow {
    double started = 0;
    int written = 0;
    long long dropped = 0;
};
std::mutex limit_lock;
std::map<std::string, CauseWindow, std::less<>> limit_windows;
constexpr double kLimitWindowSeconds = 10.0;
constexpr int kLimitLinesPerWindow = 5;

}  // namespace

void log_line(const std::string& text) {
    std::tm now = local_time(std::time(nullptr));
    char stamp[16] = {};
    std::strftime(stamp, sizeof stamp, "%H:%M:%S", &now);
    // Lines embed what others chose (players' names, paths, a service's words): none of it may
    // act on the console or forge a line, whichever caller forgot to clean it.
    std::string line = std::string(stamp) + " [sarnlink] " + printable(text);

    std::lock_guard<std::mutex> guard(log_lock);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    if (log_file && log_file->good()) {
        *log_file << line << '\n';
        log_file->flush();
    }
    if (log_sink) log_sink(line);
}

bool log_limited(const std::string& cause, const std::string& text) {
    long long dropped = 0;
    {
        std::lock_guard<std::mutex> guard(limit_lock);
        CauseWindow& w = limit_windows[cause];
        double now = steady_seconds();
        if (w.written == 0 || now - w.started >= kLimitWindowSeconds) {
            dropped = w.dropped;
            w = CauseWindow{now, 0, 0};
        }
        if (w.written >= kLimitLinesPerWindow) {
            ++w.dropped;
            return false;
        }
        ++w.written;
    }
    if (dropped > 0) {
        log_line(text + format_text(" (%lld more like this left out)", dropped));
    } else {
        log_line(text);
    }
    return true;
}

void reset_log_limits() {
    std::lock_guard<std::mutex> guard(limit_lock);
    limit_windows.clear();
}

void open_log_file(const std::filesystem::path& path) {
    std::lock_guard<std::mutex> guard(log_lock);
    // Worked out on the system's own form of the name, which holds every name it can open; text
    // would lose what is no Unicode and so turn the old log over to another name, or to none.
    using Native = std::filesystem::path::string_type;
    const Native& text = path.native();
    std::size_t at = text.rfind(Native{'.', 'l', 'o', 'g'});
    Native old_log = at == Native::npos ? text : text.substr(0, at);
    old_log += Native{'.', 'p', 'r', 'e', 'v', '.', 'l', 'o', 'g'};
    // An open file cannot be renamed on Windows; let go of any earlier one first.
    log_file.reset();
    replace_file(path, std::filesystem::path(old_log));
    log_file = std::make_unique<std::ofstream>(path, std::ios::out | std::ios::trunc | std::ios::binary);
}

void set_log_sink(std::function<void(const std::string&)> sink) {
    std::lock_guard<std::mutex> guard(log_lock);
    log_sink = std::move(sink);
}

}  // namespace zq
