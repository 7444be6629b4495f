#include "http/fetch.h"

#include "shell/util.h"

namespace http {

namespace {

// Opened once, at the first call, and closed at process exit.
struct SharedSession {
    SessionHandle* handle = nullptr;
    ~SharedSession() { detail::close_session(handle); }
};

SessionHandle* shared_session() {
    static SharedSession shared;
    static std::once_flag once;
    std::call_once(once, [] { shared.handle = detail::open_session(); });
    return shared.handle;
}

ClientResponse cancelled_response() {
    ClientResponse response;
    response.error = "cancelled";
    return response;
}

}  // namespace

RecycledSession::~RecycledSession() { detail::close_session(handle); }

ClientResponse fetch(const ClientRequest& request) {
    if (request.cancel && request.cancel->cancelled()) return cancelled_response();
    return detail::transact(shared_session(), request);
}

ClientResponse fetch(RecycledSession& recycled, const ClientRequest& request) {
    if (request.cancel && request.cancel->cancelled()) return cancelled_response();
    std::lock_guard<std::mutex> guard(recycled.lock);
    if (recycled.handle && zq::steady_seconds() - recycled.opened_at >= recycled.max_age) {
        recycled.handle = detail::renew_session(recycled.handle);
        recycled.opened_at = zq::steady_seconds();
    }
    if (!recycled.handle) {
        // A failed open is tried again by the next call.
        recycled.handle = detail::open_session(recycled.max_age);
        recycled.opened_at = zq::steady_seconds();
    }
    return detail::transact(recycled.handle, request);
}

}  // namespace http
