#include <atomic>
#include <filesystem>

#include "shell/util.h"
#include "support/host.h"
#include "support/netns.h"
#include "support/process.h"

namespace testing_support {

std::filesystem::path system_program(const std::string& name) {
    std::filesystem::path found = find_program(name);
    if (!found.empty()) return found;
    // A user's PATH often lacks the folders of the administration tools.
    for (const char* dir : {"/usr/sbin", "/sbin"}) {
        std::error_code ignored;
        std::filesystem::path candidate = std::filesystem::path(dir) / name;
        if (std::filesystem::exists(candidate, ignored)) return candidate;
    }
    return {};
}

NetworkLab::NetworkLab() {
    static std::atomic<unsigned> labs{0};
    prefix_ = zq::format_text("%s%ux%u-", detail::kLabTag, detail::lab_owner(), labs.fetch_add(1));
}

NetworkLab::~NetworkLab() {
    for (auto it = made_.rbegin(); it != made_.rend(); ++it) run(system_program("ip"), {"netns", "del", *it});
}

std::string NetworkLab::full_name(const std::string& name) const { return prefix_ + name; }

bool NetworkLab::add(const std::string& name) {
    if (!run(system_program("ip"), {"netns", "add", full_name(name)})) return false;
    made_.push_back(full_name(name));
    return ip(name, {"link", "set", "lo", "up"});
}

bool NetworkLab::ip(const std::string& name, const std::vector<std::string>& args) {
    std::vector<std::string> all;
    if (!name.empty()) all = {"-n", full_name(name)};
    all.insert(all.end(), args.begin(), args.end());
    return run(system_program("ip"), all);
}

bool NetworkLab::exec(const std::string& name, const std::string& program, const std::vector<std::string>& args) {
    return run(system_program("ip"), exec_args(name, system_program(program), args));
}

std::vector<std::string> NetworkLab::exec_args(const std::string& name, const std::filesystem::path& program,
                                               const std::vector<std::string>& args) const {
    std::vector<std::string> all{"netns", "exec", full_name(name), program.string()};
    all.insert(all.end(), args.begin(), args.end());
    return all;
}

bool NetworkLab::run(const std::filesystem::path& program, const std::vector<std::string>& args) {
    ProcessResult r = run_process(program, args, {}, {}, 20.0);
    if (r.exit_code == 0) return true;
    if (error_.empty()) {
        error_ = program.filename().string();
        for (const auto& a : args) error_ += " " + a;
        error_ += ": exit " + std::to_string(r.exit_code) + ": " + r.output;
        while (!error_.empty() && (error_.back() == '\n' || error_.back() == ' ')) error_.pop_back();
    }
    return false;
}

}  // namespace testing_support
