#include <csignal>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <string>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "support/netns.h"
#include "support/process.h"

namespace testing_support {

namespace detail {
unsigned lab_owner() { return static_cast<unsigned>(::getpid()); }
}  // namespace detail

namespace {

// Labs of runs that were killed before their clean-up: their owner process is gone, but the
// programs it started inside may still run there and would keep the namespace alive.
void remove_orphaned_labs(const std::filesystem::path& ip) {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/run/netns", ignored)) {
        std::string name = entry.path().filename().string();
        std::string tag = detail::kLabTag;
        if (name.rfind(tag, 0) != 0) continue;
        std::string owner = name.substr(tag.size(), name.find('x') - tag.size());
        if (owner.empty() || owner == std::to_string(detail::lab_owner())) continue;
        if (std::filesystem::exists("/proc/" + owner, ignored)) continue;
        std::istringstream pids(run_process(ip, {"netns", "pids", name}, {}, {}, 20.0).output);
        for (long pid = 0; pids >> pid;)
            if (pid > 1) ::kill(static_cast<pid_t>(pid), SIGKILL);
        run_process(ip, {"netns", "del", name}, {}, {}, 20.0);
    }
}

std::string probe() {
    std::filesystem::path ip = system_program("ip");
    if (ip.empty()) return "the ip program (package iproute2) is missing";
    if (system_program("nft").empty()) return "the nft program (package nftables) is missing";
    if (system_program("sh").empty()) return "no sh to set the namespaces' sysctls with";
    if (system_program("conntrack").empty()) return "the conntrack program (package conntrack) is missing";
    std::error_code ignored;
    if (!std::filesystem::exists("/dev/net/tun", ignored)) return "there is no /dev/net/tun for the lab's delaying lines";
    remove_orphaned_labs(ip);
    NetworkLab lab;
    if (!lab.add("probe")) return "this machine does not let the tests make network namespaces (" + lab.error() + ")";
    if (!lab.exec("probe", "nft", {"list", "tables"}))
        return "nftables does not work inside a network namespace here (" + lab.error() + ")";
    return "";
}

}  // namespace

bool NetworkLab::run_inside(const std::string& name, const std::function<void()>& fn) {
    std::string failure;
    // A namespace is a property of a thread; threads that this one starts inherit it.
    std::thread inside([&] {
        const std::string path = "/run/netns/" + full_name(name);
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || ::setns(fd, CLONE_NEWNET) != 0) {
            failure = "cannot enter " + path + ": " + std::strerror(errno);
            if (fd >= 0) ::close(fd);
            return;
        }
        ::close(fd);
        fn();
    });
    inside.join();
    if (failure.empty()) return true;
    if (error_.empty()) error_ = failure;
    return false;
}

std::string network_lab_unavailable() {
    static std::once_flag once;
    static std::string reason;
    std::call_once(once, [] { reason = probe(); });
    return reason;
}

}  // namespace testing_support
