#include <windows.h>

#include "support/netns.h"

namespace testing_support {

std::string network_lab_unavailable() {
    return "network namespaces, veth pairs and nftables are Linux facilities; this is the Windows build";
}

bool NetworkLab::run_inside(const std::string&, const std::function<void()>&) {
    if (error_.empty()) error_ = network_lab_unavailable();
    return false;
}

namespace detail {
unsigned lab_owner() { return static_cast<unsigned>(GetCurrentProcessId()); }
}  // namespace detail

}  // namespace testing_support
