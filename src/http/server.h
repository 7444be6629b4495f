#pragma once
// A minimal HTTP/1.1 server for the loopback: one thread per connection, blocking sockets,
// keep-alive and pipelining, no chunked coding, no time-outs. It knows no routes: every request
// goes to one handler, and what the handler returns is written back.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "http/headers.h"
#include "shell/net.h"

namespace http {

struct ServerRequest {
    std::string method;
    std::string path;  // as sent, query included
    HeaderList headers;
    std::string body;
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

// The body length that a request announces: Content-Length read like strtoull in base 10,
// 0 when it is missing, empty, not a number or out of range.
std::uint64_t announced_length(const HeaderList& headers);

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
    // Safe at any time and any number of times; waits at most 3 seconds for busy connections.
    void stop();

    zq::Socket listener = zq::invalid_socket;
    int port = 0;  // the port actually bound
    Handler handler;
    std::thread accept_thread;
    std::atomic<bool> running{false};
    std::mutex connections_lock;  // guards connections
    std::set<zq::Socket> connections;
    std::atomic<std::int32_t> active_connections{0};

private:
    // A UDP socket of the server's own that stop makes readable: every connection waits on it
    // beside its TCP socket, because a shutdown does not wake a blocked recv on every system.
    zq::Socket wake = zq::invalid_socket;
    zq::SockAddr wake_address;

    void accept_loop(zq::Socket listening);
    void connection_thread(zq::Socket s);
};

}  // namespace http
