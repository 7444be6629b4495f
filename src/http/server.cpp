#include "http/server.h"

#include <exception>

#include "shell/log.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace http {

const char* reason_phrase(int status) {
    switch (status) {
        case 200: return "OK";
        case 201: return "Created";
        case 204: return "No Content";
        case 400: return "Bad Request";
        case 401: return "Unauthorized";
        case 404: return "Not Found";
        case 500: return "Internal Server Error";
        case 502: return "Bad Gateway";
        default: return "Status";  // the game reads only the number
    }
}

RequestHead parse_request_head(std::string_view head) {
    RequestHead out;
    const std::size_t eol = head.find('\n');
    // The first three words of the request line, split at any white space.
    std::string_view line = head.substr(0, eol);
    auto is_space = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; };
    std::string* words[] = {&out.method, &out.path, &out.version};
    std::size_t at = 0;
    for (std::string* word : words) {
        while (at < line.size() && is_space(line[at])) ++at;
        const std::size_t begin = at;
        while (at < line.size() && !is_space(line[at])) ++at;
        if (begin == at) break;
        word->assign(line.substr(begin, at - begin));
    }
    if (eol != std::string_view::npos) append_header_lines(head.substr(eol + 1), out.headers);
    return out;
}

HeadProblem head_problem(const RequestHead& head) {
    for (const auto& [name, value] : head.headers) {
        if (iequals(name, "Transfer-Encoding")) return {411, "Transfer-Encoding is not taken; send Content-Length"};
        if (name.find_first_of("\r\n") != std::string::npos || value.find_first_of("\r\n") != std::string::npos)
            return {400, "bad header"};
    }
    return {};
}

BodyLength body_length(const HeaderList& headers, std::uint64_t limit) {
    const std::string* text = nullptr;
    for (const auto& [name, value] : headers) {
        if (!iequals(name, "Content-Length")) continue;
        // Two lengths that disagree leave no way to tell where the next request starts.
        if (text && *text != value) return {BodyLength::Malformed, 0};
        text = &value;
    }
    if (!text || text->empty()) return {};
    if (text->find_first_not_of("0123456789") != std::string::npos) return {BodyLength::Malformed, 0};
    const std::size_t first = text->find_first_not_of('0');
    if (first == std::string::npos) return {};
    // Nineteen digits always fit in 64 bits; more never fit under any limit worth having.
    if (text->size() - first > 19) return {BodyLength::TooLarge, ~std::uint64_t{0}};
    std::uint64_t n = 0;
    for (std::size_t i = first; i < text->size(); ++i) n = n * 10 + static_cast<std::uint64_t>((*text)[i] - '0');
    if (n > limit) return {BodyLength::TooLarge, n};
    return {BodyLength::Ok, n};
}

std::string format_response(const ServerResponse& response, bool keep_alive, bool head_only) {
    std::string out;
    std::size_t size = 96 + (head_only ? 0 : response.body.size());
    for (const auto& [name, value] : response.headers) size += name.size() + value.size() + 4;
    out.reserve(size);
    out += "HTTP/1.1 ";
    out += std::to_string(response.status);
    out += ' ';
    out += reason_phrase(response.status);
    out += "\r\n";
    for (const auto& [name, value] : response.headers) {
        if (iequals(name, "Content-Length") || iequals(name, "Connection")) continue;
        out += name;
        out += ": ";
        out += value;
        out += "\r\n";
    }
    out += "Content-Length: ";
    out += std::to_string(response.body.size());
    out += "\r\n";
    out += keep_alive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
    if (!head_only) out += response.body;
    return out;
}

Server::~Server() { stop(); }

namespace {

http::ServerResponse error_response(const char* message, int status) {
    nlohmann::ordered_json body;
    body["ResKind"] = 1;
    body["Message"] = message;
    return json_response(body, status);
}

}  // namespace

bool Server::start(const std::string& host, int port_wanted, Handler handler_in, std::string* error) {
    handler = std::move(handler_in);
    if (int code = 0; !listener_.listen(host, port_wanted, 16, &code)) {
        if (error) *error = zq::format_text("cannot listen on %s:%d (error %d)", host.c_str(), port_wanted, code);
        return false;
    }
    port = listener_.port();
    cancel_ = std::make_shared<CancelFlag>();
    budget_ = std::make_unique<zq::ByteBudget>(max_buffered);
    listener_.peers = peers;
    listener_.same_user_only = same_user_only;
    listener_.max_connections = max_connections;
    using Event = zq::Listener::Event;
    auto describe = [this](Event event, const zq::Endpoint& peer, const std::string& detail) -> std::string {
        const char* d = detail.c_str();
        switch (event) {
            case Event::AcceptFailed:
                return zq::format_text("http :%d: accept failed (error %s), trying again", port, d);
            case Event::NotServed:
            case Event::OtherUser:
                return zq::format_text("http :%d: refused connection from %s, which it does not serve", port,
                                       peer.host.c_str());
            case Event::SlotTaken:
                return zq::format_text("http :%d: took a connection slot back from %s, which kept it waiting", port, d);
            case Event::Full:
                return zq::format_text("http :%d: %d connections open, another waits for a slot", port, max_connections);
            case Event::NoThread: return zq::format_text("http :%d: refused a connection, no thread: %s", port, d);
        }
        return {};
    };
    listener_.start([this](const std::shared_ptr<zq::Listener::Connection>& c) { connection_thread(*c); },
                    zq::format_text("http :%d", port), describe);
    return true;
}

void Server::stop() {
    // Upstream calls end first, so that the handlers that made them return soon.
    if (cancel_) cancel_->cancel();
    listener_.stop();
}

void Server::connection_thread(zq::Listener::Connection& connection) {
    const zq::Socket s = connection.socket();
    // Large blocks, because every receive costs a wait beside it (a round trip to the
    // wineserver under Wine) and a head may be a megabyte.
    // Not cleared: the pages are touched only as far as receives fill them.
    constexpr int block_size = 65536;
    std::unique_ptr<char[]> block(new char[block_size]);
    // Grows with what arrives, never with what a header announces.
    zq::ReceiveBuffer buffer(*budget_, block_size);
    bool over_budget = false;
    bool keep_alive = true;
    bool first = true;
    const bool from_this_pc = peers.on_this_pc(connection.peer().host);
    // Whether the request under way has waited for its peer yet: the slot counts as waiting
    // from the first wait, so that a peer that trickles its bytes gains nothing by it.
    bool waited = false;
    // Appends one receive to the buffer; false when the peer is gone or failed, the deadline
    // passed, the budget has no room for it, or the server is stopping.
    auto receive = [&](double deadline) {
        if (!waited) connection.slot().waiting();
        waited = true;
        if (!connection.wait_readable(deadline)) return false;
        int n = zq::recv_some(s, block.get(), block_size);
        if (n < 1) return false;
        over_budget = !buffer.append(block.get(), static_cast<std::size_t>(n));
        return !over_budget;
    };
    auto seconds_from_now = [](int ms) { return zq::steady_seconds() + ms / 1000.0; };
    auto send = [&](const std::string& bytes) {
        connection.slot().waiting();
        return zq::send_all(s, bytes, seconds_from_now(send_timeout_ms));
    };
    // Answers a request that cannot be taken, then ends the connection: what follows it on the
    // wire cannot be told from its body.
    auto refuse = [&](int status, const char* message, bool head_only) {
        if (send(format_response(error_response(message, status), false, head_only))) {
            // Reads on for a moment, so that closing with unread bytes does not reset the
            // connection before the client has read the answer.
            const double linger = seconds_from_now(1000);
            while (connection.wait_readable(linger) && zq::recv_some(s, block.get(), block_size) > 0) {
            }
        }
    };
    while (keep_alive && !cancel_->cancelled()) {
        // A new connection owes its head from the start; a kept-alive one may sit idle longer,
        // but once its next request has begun, the head is due within the same time.
        bool begun = first || buffer.size() > 0;
        first = false;
        // A request that is here already keeps the connection working.
        waited = false;
        connection.slot().working();
        double deadline = seconds_from_now(begun ? head_timeout_ms : idle_timeout_ms);
        std::size_t searched = 0;
        std::size_t end;
        bool have_head = true;
        while ((end = buffer.bytes().find("\r\n\r\n", searched)) == std::string::npos) {
            searched = buffer.size() < 3 ? 0 : buffer.size() - 3;
            // An overlong head is dropped without an answer, even if this block held its end.
            if (!receive(deadline) || buffer.size() > max_head_buffer) {
                have_head = false;
                break;
            }
            if (!begun) {
                begun = true;
                deadline = seconds_from_now(head_timeout_ms);
            }
        }
        if (!have_head) break;
        RequestHead head = parse_request_head(std::string_view(buffer.bytes()).substr(0, end));
        buffer.consume(end + 4);

        const bool head_only = head.method == "HEAD";
        if (const HeadProblem problem = head_problem(head); problem.status != 0) {
            refuse(problem.status, problem.message, head_only);
            break;
        }
        const BodyLength length = body_length(head.headers, max_body);
        if (length.kind == BodyLength::TooLarge) {
            zq::log_limited(zq::format_text("http body :%d", port),
                            zq::format_text("http :%d: refused a body of %llu bytes (at most %llu)", port,
                                            static_cast<unsigned long long>(length.bytes),
                                            static_cast<unsigned long long>(max_body)));
            refuse(413, "request body too large", head_only);
            break;
        }
        if (length.kind == BodyLength::Malformed) {
            refuse(400, "bad Content-Length", head_only);
            break;
        }
        const double body_deadline = seconds_from_now(body_timeout_ms);
        bool complete = true;
        while (buffer.size() < length.bytes) {
            if (!receive(body_deadline)) {
                complete = false;
                break;
            }
        }
        if (!complete) {
            // Other connections hold the memory that this body needs: it may come again later.
            if (over_budget) refuse(503, "busy, try again", head_only);
            break;
        }

        ServerRequest request{.method = std::move(head.method),
                              .path = std::move(head.path),
                              .headers = std::move(head.headers),
                              .body = std::string(buffer.bytes().substr(0, static_cast<std::size_t>(length.bytes))),
                              .cancel = cancel_,
                              .peer = connection.peer(),
                              .from_this_pc = from_this_pc};
        buffer.consume(static_cast<std::size_t>(length.bytes));

        if (iequals(find_header(request.headers, "Connection"), "close") || head.version == "HTTP/1.0")
            keep_alive = false;

        connection.slot().working();
        ServerResponse response;
        try {
            response = handler(request);  // an empty handler throws bad_function_call
        } catch (const std::exception& e) {
            response = error_response((std::string("bridge error: ") + e.what()).c_str(), 500);
        }
        // A newcomer waits for a slot: this answer says close, and the slot is the newcomer's.
        if (keep_alive && connection.slot().give_way()) keep_alive = false;

        if (!send(format_response(response, keep_alive, request.method == "HEAD"))) keep_alive = false;
    }
}

}  // namespace http
