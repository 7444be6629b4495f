#include "support/delay_wire.h"

namespace testing_support {

struct DelayWire::Impl {};

DelayWire::DelayWire() = default;
DelayWire::~DelayWire() = default;

bool DelayWire::open(NetworkLab&, const std::string&, const std::string&, const std::string&, const std::string&, int,
                     std::string* error) {
    if (error) *error = "TUN devices in network namespaces are a Linux facility";
    return false;
}

}  // namespace testing_support
