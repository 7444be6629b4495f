#pragma once
// A minimal HTTP/1.1 server for the loopback: one thread per connection, blocking sockets,
// keep-alive and pipelining, no chunked coding. It knows no routes: every request goes to one
// handler, and what the handler returns is written back.
//
// Anything on the machine can connect, so every resource a caller can make it hold is bounded:
// who may connect at all (by address), connections at once (a full server takes a slot back
// from a connection that waits on its peer; when none does, the newcomer waits in a queue and
// the next connection to finish an answer closes after it and leaves its slot to it), the
// time a request head, a body, an idle keep-alive connection and the sending of a response may
// take, the size of a body (larger ones get 413), and the memory that all connections' receive
// buffers hold together. Every connection thread is owned and joined by stop, which first
// cancels the handlers' upstream calls through the flag that each request carries.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "http/fetch.h"
#include "http/headers.h"
#include "shell/connection_threads.h"
#include "shell/listener.h"
#include "shell/net.h"
#include "shell/peer_filter.h"

namespace http {

struct ServerRequest {
    std::string method;
    std::string path;  // as sent, query included
    HeaderList headers;
    std::string body;
    // Set when the server stops; a handler hands it to the upstream calls it makes for this
    // request, so that stop does not wait for them. Never null on the server's threads.
    std::shared_ptr<const CancelFlag> cancel;
    zq::Endpoint peer;  // who connected; empty when the system could not tell
    bool from_this_pc = false;  // the peer is a program on this PC, by the server's filter
};

struct ServerResponse {
    std::int32_t status = 200;
    HeaderList headers;  // Content-Length and Connection in here are ignored
    std::string body;
};

using Handler = std::function<ServerResponse(const ServerRequest&)>;

// A response with the compact JSON text of value (either kind of JSON document) and the one
// header Content-Type: application/json.
template <class Json>
ServerResponse json_response(const Json& value, int status) {
    return {status, {{"Content-Type", "application/json"}}, value.dump()};
}

// The reason text of the status line; "Status" for any code it does not know.
const char* reason_phrase(int status);

// The largest buffer searched for the end of a request head.
inline constexpr std::size_t max_head_buffer = 0x100000;

// A request head, the text before the blank line, as it was parsed.
struct RequestHead {
    std::string method;
    std::string path;
    std::string version;
    HeaderList headers;
};

// Pure parse of a head: a malformed request line gives empty or partial words, never a failure.
RequestHead parse_request_head(std::string_view head);

// Why a parsed head cannot be served as it stands, with the status to answer; status 0 when it
// can. A Transfer-Encoding leaves the end of the body to a coding that this server does not
// read, and a CR or LF inside a header's name or value could become a header of its own further on.
struct HeadProblem {
    int status = 0;
    const char* message = "";
};
HeadProblem head_problem(const RequestHead& head);

// The largest request body taken: far above what the game posts (its largest bodies, play log
// uploads, are some kilobytes), small enough that a full set of connections stays affordable.
inline constexpr std::uint64_t max_request_body = 8u << 20;

// What the Content-Length headers of a message say. Missing or empty means 0. A value that is
// not plain decimal digits (a sign, "12abc", "-1"), or several headers that disagree, is
// Malformed; a number above limit, or too long for 64 bits, is TooLarge.
struct BodyLength {
    enum Kind { Ok, Malformed, TooLarge };
    Kind kind = Ok;
    std::uint64_t bytes = 0;
};
BodyLength body_length(const HeaderList& headers, std::uint64_t limit);

// The whole response as one block. With head_only the body is left out while Content-Length
// still gives its size.
std::string format_response(const ServerResponse& response, bool keep_alive, bool head_only);

class Server {
public:
    ~Server();

    // Listens on host (dotted IPv4, no name look-up) and port (0 picks a free one, see port).
    bool start(const std::string& host, int port, Handler handler, std::string* error);
    // Safe at any time and any number of times. Cancels the handlers' upstream calls, wakes
    // every connection and joins every thread of the server before it returns.
    void stop();

    // Closes every open connection at once, without an answer; for stop, and for a test double
    // that drops its callers.
    void drop_connections() { listener_.end_all(); }

    // Limits, set before start. Times in milliseconds.
    zq::PeerFilter peers = zq::PeerFilter::everyone();  // who may connect; the others are closed at once
    bool same_user_only = false;  // also closes programs of this PC that run as another user
    int max_connections = 64;      // slots; see ConnectionSlots for who loses one when all are held
    int head_timeout_ms = 10000;   // for a whole request head, from its first byte (or the accept)
    int idle_timeout_ms = 30000;   // for the first byte of the next request on a kept-alive one
    int body_timeout_ms = 30000;   // for a whole body, from the end of its head
    int send_timeout_ms = 10000;   // for a whole response
    std::uint64_t max_body = max_request_body;
    // What all receive buffers together may hold beyond 64 KiB each: a body that it cannot take
    // gets 503, a head is dropped.
    std::size_t max_buffered = 16u << 20;

    int port = 0;  // the port actually bound
    Handler handler;

private:
    zq::Listener listener_;
    std::shared_ptr<CancelFlag> cancel_;
    std::unique_ptr<zq::ByteBudget> budget_;
    void connection_thread(zq::Listener::Connection& connection);

public:
    std::atomic<std::int32_t>& active_connections = listener_.active_connections();  // connection threads serving now
};

}  // namespace http
