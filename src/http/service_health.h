#pragma once
// The outcome of the last call to the remote service, kept for the player's status page: which
// call, how it ended and when. One record per process; written by every upstream call.

#include <cstdint>
#include <optional>
#include <string>

namespace zq {

struct ServiceCall {
    std::string path;         // "/np/events/poll", never with a query or a body
    std::int32_t status = 0;  // HTTP status, 0 when the transport failed
    std::string error;        // the transport's failure text, empty when an answer came
    double finished = 0.0;    // steady_seconds when it ended
    double seconds = 0.0;     // how long it took
};

// Replaces the record. Cheap: one short lock, no I/O.
void note_service_call(ServiceCall call);

// The last record, or nothing before the first call.
std::optional<ServiceCall> last_service_call();

// Forgets the record (for tests that start from nothing).
void forget_service_calls();

}  // namespace zq
