#pragma once
// Network namespaces for tests that build a small internet inside one Linux machine: homes,
// routers that NAT them, and a public side. Everything a lab makes it removes again.

#include <filesystem>
#include <string>
#include <vector>

namespace testing_support {

// Why no lab can be built on this machine (not Linux, no `ip` or `nft`, not allowed to make
// namespaces), or "" when one can. The answer is worked out once.
std::string network_lab_unavailable();

// `ip`, `nft` and `sh` as found on PATH or in the system folders; empty when missing.
std::filesystem::path system_program(const std::string& name);

namespace detail {
// This process's id, which lab names carry so that a lab left behind by a killed run can be told
// from one in use.
unsigned lab_owner();
inline constexpr const char* kLabTag = "sarnlab";
}  // namespace detail

class NetworkLab {
public:
    // Namespaces get names unique to this process and lab, so that parallel runs never meet.
    NetworkLab();
    // Deletes every namespace of the lab. Processes still running inside must be gone first:
    // a namespace lives on while a process holds it.
    ~NetworkLab();
    NetworkLab(const NetworkLab&) = delete;
    NetworkLab& operator=(const NetworkLab&) = delete;

    // Makes a namespace with its loopback up; false (with the reason in error()) on failure.
    bool add(const std::string& name);
    // The system's name of a namespace of this lab.
    std::string full_name(const std::string& name) const;
    // Runs `ip` with these arguments, with -n for a namespace of the lab when one is named.
    bool ip(const std::string& name, const std::vector<std::string>& args);
    // Runs a program inside a namespace of the lab.
    bool exec(const std::string& name, const std::string& program, const std::vector<std::string>& args);
    // The arguments of `ip` that run a program inside a namespace, for Process.
    std::vector<std::string> exec_args(const std::string& name, const std::filesystem::path& program,
                                       const std::vector<std::string>& args) const;
    // What the first failed command said.
    const std::string& error() const { return error_; }

private:
    bool run(const std::filesystem::path& program, const std::vector<std::string>& args);

    std::string prefix_;
    std::vector<std::string> made_;
    std::string error_;
};

// Moves the calling thread into a namespace of a lab while it lives, then back. Sockets made
// meanwhile, and threads that this thread starts meanwhile, stay in that namespace for good.
class InsideNamespace {
public:
    InsideNamespace(const NetworkLab& lab, const std::string& name);
    ~InsideNamespace();
    InsideNamespace(const InsideNamespace&) = delete;
    InsideNamespace& operator=(const InsideNamespace&) = delete;

    // Why the thread did not move, or "" when it is inside.
    const std::string& error() const { return error_; }

private:
    int home_ = -1;
    std::string error_;
};

}  // namespace testing_support
