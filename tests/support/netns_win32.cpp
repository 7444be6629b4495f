#include <windows.h>

#include "support/netns.h"

namespace testing_support {

std::string network_lab_unavailable() {
    return "network namespaces, veth pairs and nftables are Linux facilities; this is the Windows build";
}

InsideNamespace::InsideNamespace(const NetworkLab&, const std::string&)
    : error_("network namespaces are a Linux facility") {}
InsideNamespace::~InsideNamespace() {}

namespace detail {
unsigned lab_owner() { return static_cast<unsigned>(GetCurrentProcessId()); }
}  // namespace detail

}  // namespace testing_support
