#pragma once
// Host names that belong to the deployment rather than to the program. This file is the one
// place to change them; a build may also set SARNLINK_SERVICE_HOST (CMake cache variable).

#ifndef SARNLINK_SERVICE_HOST
#define SARNLINK_SERVICE_HOST "velmar.ember-court.example"
#endif

namespace zq {

// The Ember Court: the matching API, accounts, the community service and the game's traffic.
inline constexpr const char* kServiceHost = SARNLINK_SERVICE_HOST;

}  // namespace zq
