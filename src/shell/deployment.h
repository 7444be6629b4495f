#pragma once
// Host names that belong to the deployment rather than to the program. This file is the one
// place to change them; a build may also define any of the macros below on the compiler's
// command line (-DSARNLINK_SERVICE_HOST=\"host\").

#ifndef SARNLINK_SERVICE_HOST
#define SARNLINK_SERVICE_HOST "velmar.ember-court.example"
#endif

#ifndef SARNLINK_RETAIL_HOST
#define SARNLINK_RETAIL_HOST "retail.duskhallow.example"
#endif

#ifndef SARNLINK_PLAYLOG_TEST_HOST
#define SARNLINK_PLAYLOG_TEST_HOST "playlog-test.storage.example"
#endif

#ifndef SARNLINK_PLAYLOG_HOST
#define SARNLINK_PLAYLOG_HOST "playlog.storage.example"
#endif

#ifndef SARNLINK_OAKMESH_HOST
#define SARNLINK_OAKMESH_HOST "np.oakmesh.example"
#endif

namespace zq {

// The Ember Court: the matching API, accounts, the community service and the game's traffic.
inline constexpr const char* kServiceHost = SARNLINK_SERVICE_HOST;

// The game's own retail server, whose HTTPS traffic the overrides file sends to a game proxy.
inline constexpr const char* kRetailHost = SARNLINK_RETAIL_HOST;

// The two cloud stores that receive the game's play log: the test one and the production one.
inline constexpr const char* kPlayLogTestHost = SARNLINK_PLAYLOG_TEST_HOST;
inline constexpr const char* kPlayLogHost = SARNLINK_PLAYLOG_HOST;

// The runtime's own online service (oakmesh), where the launcher points when routing is off.
inline constexpr const char* kOakmeshHost = SARNLINK_OAKMESH_HOST;

}  // namespace zq
