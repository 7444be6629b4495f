#pragma once
// The summon proxy: the game's POSTs to /summon_messenger/... go on to the community server
// with the account's token. From "/summon_messenger/create" it keeps the advertisement, which
// room creation uses later, and from the answer it carries the placement header to the game.

#include "http/server.h"
#include "web/host.h"

namespace zq {

inline constexpr const char* placement_header = "X-Nimbra7-Duskhallow-Host-Placement";

// Called by the web API for every POST under "/summon_messenger/".
http::ServerResponse summon_handler(web::Host& host, const http::ServerRequest& request);

}  // namespace zq
