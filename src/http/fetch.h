#pragma once
// The program's only outgoing HTTP: one blocking call, request record in, response record out.
// It never throws for a network failure; what went wrong comes back as text in error.
// Beneath it: WinHTTP on Windows (fetch_winhttp_win32.cpp), libcurl elsewhere (fetch_curl_posix.cpp).
//
// Both keep the same rules: resolve, connect, send and receive each limited by timeout_ms (a
// limit per phase, not on the whole call); no redirect is followed; connections are reused
// within a session only; a User-Agent in the request's headers replaces the session's agent
// "sarnlink"; no HTTP/2, no content decoding, no certificate failure waived. On libcurl the
// trusted authorities are the system's bundle, or the bundle that SSL_CERT_FILE names, read once
// and shared by every connection.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "http/headers.h"

namespace http {

// Lets an owner that is stopping end the calls it started: once cancel() is called, a call that
// carries it fails with "cancelled" as soon as it can, and one not yet started fails at once.
class CancelFlag {
public:
    void cancel() { cancelled_.store(true); }
    bool cancelled() const { return cancelled_.load(); }

private:
    std::atomic<bool> cancelled_{false};
};

struct ClientRequest {
    std::string method = "POST";
    std::string url;  // absolute, UTF-8: scheme, host, optional port, path and query
    HeaderList headers;
    std::string body;
    std::uint32_t timeout_ms = 8000;
    // Whole-call limit in milliseconds, 0 for none; ends an answer that trickles in forever.
    std::uint32_t deadline_ms = 0;
    std::shared_ptr<const CancelFlag> cancel;  // may be null
};

// A non-empty error means the transaction failed, whatever else is filled in. Its texts:
//   "WinHttpOpen failed"              the session could not be opened
//   "bad url <url>"                   no scheme, or a host over 255 or a path over 4095 characters
//   "connect failed (<n>)"            the connection handle could not be made
//   "open request failed (<n>)"       the request could not be made
//   "The read operation timed out"    a phase before the response head took longer than timeout_ms
//   "request failed (<n>)"            sending or waiting for the head failed otherwise
//   "read failed (<n>)"               reading the body failed (a time-out here too)
//   "cancelled"                       the request's CancelFlag was set
//   "deadline passed"                 the whole call took longer than deadline_ms
// <n> is the system's error number (GetLastError, errno; libcurl's code when it has none).
// An HTTP error status is no failure: a 404 comes back with an empty error.
struct ClientResponse {
    std::uint32_t status = 0;
    HeaderList headers;  // in order, the status line left out
    std::string body;
    std::string error;
};

// The platform's session: a WinHTTP session handle, or libcurl's shared connection cache.
struct SessionHandle;

// A private session whose connections are given up once it is max_age seconds old: at the first
// call after that age, never in the middle of a transaction. What the system keeps beside the
// connections (TLS sessions to resume, name look-ups) stays. Calls on one session run one at a
// time.
struct RecycledSession {
    RecycledSession() = default;
    explicit RecycledSession(double max_age_seconds) : max_age(max_age_seconds) {}
    ~RecycledSession();
    RecycledSession(const RecycledSession&) = delete;
    RecycledSession& operator=(const RecycledSession&) = delete;

    std::mutex lock;  // held for the whole of a request
    SessionHandle* handle = nullptr;
    double opened_at = 0.0;  // steady_seconds at the last open
    double max_age = 45.0;
};

// On the process-wide session, opened at the first call; a failed open is not tried again.
ClientResponse fetch(const ClientRequest& request);
// On the given private session.
ClientResponse fetch(RecycledSession& recycled, const ClientRequest& request);

// Does now what the first call to url would otherwise do on its way, where that is slow: looking
// up the host's name (in the background), reading the trusted authorities for an https URL and
// readying the TLS library. For a program that will call url soon.
void prepare_for(const std::string& url);

namespace detail {
// What each platform provides beneath fetch.
// Null when it cannot be opened. The connections of a session with an age (seconds) are given
// up at that age: each at its own (libcurl), or all at once by renew_session (WinHTTP).
SessionHandle* open_session(double connection_max_age = 0.0);
// For a session past its age: the handle to go on with, or null where a new one is to be opened.
SessionHandle* renew_session(SessionHandle* session);
void close_session(SessionHandle* session);
ClientResponse transact(SessionHandle* session, const ClientRequest& request);
// Whether the name look-up that prepare_for started for url has ended; true where none was
// started.
bool early_lookup_done(const std::string& url);
}  // namespace detail

}  // namespace http
