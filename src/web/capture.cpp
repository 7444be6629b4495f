#include "web/capture.h"

#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>

#include "accounts/state_file.h"
#include "shell/log.h"
#include "shell/platform.h"

namespace zq::web {

namespace {

void write_file(const std::filesystem::path& path, const std::string& contents, std::ios::openmode mode) {
    // Unchecked on purpose: a file that cannot be written is passed over, and the next is tried.
    std::ofstream out(path, mode | std::ios::out | std::ios::trunc);
    out << contents;
}

}  // namespace

void capture_traffic(const std::string& state_file, const std::string& name, const std::string& request_body,
                     std::int32_t status, const std::string& response_body, const std::string& note) {
    try {
        const std::filesystem::path state = std::filesystem::absolute(state_path(state_file));
        const std::filesystem::path folder = state.parent_path() / "captures";
        std::filesystem::create_directories(folder);

        std::tm now = local_time(std::time(nullptr));
        char stamp[32] = {};
        std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &now);
        const std::string stem = std::string(stamp) + "-" + name;
        const std::filesystem::path base = folder / utf8_path(stem);

        auto file = [&base](const char* tail) {
            std::filesystem::path path = base;
            path += tail;
            return path;
        };
        write_file(file("-request.bin"), request_body, std::ios::binary);
        write_file(file("-response.bin"), response_body, std::ios::binary);
        // Text mode: line ends are the system's own.
        write_file(file(".txt"),
                   "name=" + name + "\nstatus=" + std::to_string(status) + "\n" + note + "\n", {});
    } catch (const std::exception& e) {
        log_line(std::string("capture failed: ") + e.what());
    }
}

}  // namespace zq::web
