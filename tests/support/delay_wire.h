#pragma once
// A point-to-point link between two namespaces of a lab that holds every packet for a fixed
// time before passing it on, as a long line does. The kernel here has no delaying queue of its
// own, so each end is a TUN device, and a thread of this process carries the packets across.

#include <memory>
#include <string>

#include "support/netns.h"

namespace testing_support {

class DelayWire {
public:
    DelayWire();
    // Ends the carrying thread; the two devices go with it.
    ~DelayWire();
    DelayWire(const DelayWire&) = delete;
    DelayWire& operator=(const DelayWire&) = delete;

    // Makes device `dev_a` in namespace `ns_a` and `dev_b` in `ns_b` (names as the lab knows
    // them), both up and without addresses, and starts carrying after `delay_ms` each way.
    // False with the reason in *error on failure.
    bool open(NetworkLab& lab, const std::string& ns_a, const std::string& dev_a, const std::string& ns_b,
              const std::string& dev_b, int delay_ms, std::string* error);

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace testing_support
