#pragma once
// A minimal HTTP/1.1 server for the loopback: one thread per connection, blocking sockets,
// keep-alive and pipelining, no chunked coding. It knows no routes: every request goes to one
// handler, and what the handler returns is written back.
//
// Anything on the machine can connect, so every resource a caller can make it hold is bounded:
// connections at once (more are closed at once), the time a request head, a body and an idle
// keep-alive connection may take, and the size of a body (larger ones get 413). Every
// connection thread is owned and joined by stop, which first cancels the handlers' upstream
// calls through the flag that each request carries.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "http/fetch.h"
#include "http/headers.h"
#include "shell/connection_threads.h"
#include "shell/net.h"

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
};

struct ServerResponse {
    std::int32_t status = 200;
    HeaderList headers;  // Content-Length and Connection in here are ignored
    std::string body;
};

using Handler = std::function<ServerResponse(const ServerRequest&)>;

// A response with the compact JSON text of value and the one header Content-Type: application/json.
ServerResponse json_response(const nlohmann::json& value, int status);
ServerResponse json_response(const nlohmann::ordered_json& value, int status);

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
    Server() = default;
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Listens on host (dotted IPv4, no name look-up) and port (0 picks a free one, see port).
    bool start(const std::string& host, int port, Handler handler, std::string* error);
    // Safe at any time and any number of times. Cancels the handlers' upstream calls, wakes
    // every connection and joins every thread of the server before it returns.
    void stop();

    // Limits, set before start. Times in milliseconds.
    int max_connections = 64;      // open at once; more are closed as soon as they are accepted
    int head_timeout_ms = 10000;   // for a whole request head, from its first byte (or the accept)
    int idle_timeout_ms = 30000;   // for the first byte of the next request on a kept-alive one
    int body_timeout_ms = 30000;   // for a whole body, from the end of its head
    std::uint64_t max_body = max_request_body;

    zq::Socket listener = zq::invalid_socket;
    int port = 0;  // the port actually bound
    Handler handler;
    std::thread accept_thread;
    std::atomic<bool> running{false};
    std::mutex connections_lock;  // guards connections
    std::set<zq::Socket> connections;

private:
    // Raised by stop: every connection and the accept loop wait on it beside their own socket.
    zq::StopSignal stop_signal_;
    zq::ConnectionThreads threads_;
    std::shared_ptr<CancelFlag> cancel_;

public:
    std::atomic<std::int32_t>& active_connections = threads_.active;  // connection threads serving now

private:
    void accept_loop(zq::Socket listening);
    void connection_thread(zq::Socket s);
    // Waits on s (or only on the stop signal when s is invalid) until it is readable, the
    // deadline (steady seconds) passes or stop is under way; true only for the first.
    bool wait_for(zq::Socket s, double deadline);
};

}  // namespace http
