#pragma once
// The stand-in's STUN and relay server, on the loopback for tests.

#include "standin/stun_relay_server.h"

namespace testing_support {

using StunRelayServer = standin::StunRelayServer;

}  // namespace testing_support
