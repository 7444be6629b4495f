#include "bridge/session.h"

#include <algorithm>
#include <vector>

#include "bridge/bridge.h"
#include "bridge/dispatch.h"
#include "bridge/frames.h"
#include "shell/log.h"

namespace zq {


TcpConn::~TcpConn() { release(); }

bool TcpConn::write(std::string_view bytes) {
    std::lock_guard<std::mutex> guard(write_lock);
    if (!alive || socket_ == invalid_socket) return false;
    if (send_all(socket_, bytes)) return true;
    alive = false;
    // Also wakes the connection's read loop, which waits for the game without a timer. The
    // socket stays valid: releasing it takes write_lock, held here.
    shutdown_socket(socket_);
    return false;
}

// Not under write_lock: a send blocked on a game that stopped reading holds that lock, and
// shutting the socket down is what ends such a send.
void TcpConn::close() {
    alive = false;
    std::lock_guard<std::mutex> guard(socket_lock_);
    if (socket_ != invalid_socket) shutdown_socket(socket_);
}

void TcpConn::release() {
    alive = false;
    std::lock_guard<std::mutex> writing(write_lock);
    std::lock_guard<std::mutex> guard(socket_lock_);
    if (socket_ != invalid_socket) {
        close_socket(socket_);
        socket_ = invalid_socket;
    }
}

Session::Session(std::shared_ptr<TcpConn> conn, Bridge* owner)
    : UpstreamClient(owner->config().velmar_server), connection(std::move(conn)), bridge(owner) {
    if (!owner->config().user_agent.empty()) client_mark = owner->config().user_agent;
    cancel = owner->cancel_flag();
}

Session::~Session() {
    // Normally joined by shutdown(); a pump that outlived it must not take the process down.
    if (pump_thread.joinable()) {
        if (pump_thread.get_id() == std::this_thread::get_id())
            pump_thread.detach();
        else
            pump_thread.join();
    }
}

void Session::shutdown() {
    {
        std::lock_guard<std::mutex> guard(pump_lock);
        stop_flag = true;
    }
    pump_wake.notify_all();
    {
        std::lock_guard<std::mutex> guard(thread_lock);
        if (pump_thread.joinable() && pump_thread.get_id() != std::this_thread::get_id()) pump_thread.join();
    }
    std::lock_guard<std::mutex> guard(session_lock);
    // When the bridge stops, calls are cancelled; leaving the room still goes out, briefly.
    leave_room_locked(cancel && cancel->cancelled());
}

std::string quote(const std::string& text) {
    std::string out = "'";
    out += printable(text);
    out += '\'';
    return out;
}

namespace {

// The bytes of a game connection as they arrive: one receive often holds a whole frame, or
// several. The buffer grows with the bytes that arrive, never with what a header announces,
// and a large one is let go once its frame is done.
class FrameReader {
public:
    FrameReader(Bridge& bridge, TcpConn& connection) : bridge_(bridge), connection_(connection) {}

    // Makes size unread bytes available. False on end of stream or error, after the deadline
    // (steady seconds, 0 for none), or once the connection or the bridge is being closed.
    bool need(std::size_t size, double deadline) {
        while (buffer_.size() - read_ < size) {
            if (!bridge_.wait_for_input(connection_.socket(), deadline) || !connection_.is_alive()) return false;
            if (!block_) block_.reset(new char[block_size]);  // not cleared: receives fill it
            const int n = recv_some(connection_.socket(), block_.get(), block_size);
            if (n < 1) return false;
            if (read_ == buffer_.size()) {
                buffer_.clear();
                read_ = 0;
            } else if (read_ > 0) {
                buffer_.erase(0, read_);
                read_ = 0;
            }
            buffer_.append(block_.get(), static_cast<std::size_t>(n));
        }
        return true;
    }
    // The next size bytes, which need made available; valid until the next need.
    std::string_view take(std::size_t size) {
        std::string_view out(buffer_.data() + read_, size);
        read_ += size;
        return out;
    }
    // After a frame is done: a buffer that a large frame grew is given back.
    void settle() {
        if (read_ == buffer_.size() && buffer_.capacity() > keep_capacity) {
            std::string().swap(buffer_);
            read_ = 0;
        }
    }

private:
    static constexpr int block_size = 0x10000;
    static constexpr std::size_t keep_capacity = 0x100000;
    Bridge& bridge_;
    TcpConn& connection_;
    std::string buffer_;
    std::size_t read_ = 0;  // bytes of buffer_ already taken
    std::unique_ptr<char[]> block_;
};

}  // namespace

void session_loop(Bridge& bridge, const std::shared_ptr<TcpConn>& connection) {
    std::shared_ptr<Session> session;
    if (connection->write(hello_frame())) {
        FrameReader reader(bridge, *connection);
        std::string reply;
        // Until its first whole frame a connection has a deadline; a game that has spoken may
        // then sit idle for as long as it likes.
        double deadline = steady_seconds() + Bridge::first_frame_timeout_ms / 1000.0;
        while (bridge.running() && connection->is_alive()) {
            if (!reader.need(header_size, deadline)) break;
            const CommandHeader header =
                parse_header(reinterpret_cast<const unsigned char*>(reader.take(header_size).data()));
            // A malformed header closes the connection without a word.
            if (!header.size_ok()) break;
            if (!reader.need(header.body_size(), deadline)) break;
            const std::string_view body = reader.take(header.body_size());
            deadline = 0;
            if (header.kind != static_cast<std::uint8_t>(FrameKind::Request)) {
                reader.settle();
                continue;
            }

            if (!session) {
                session = std::make_shared<Session>(connection, &bridge);
                std::lock_guard<std::mutex> guard(bridge.sessions_lock);
                bridge.sessions.push_back(session);
            }
            CommandResult result = dispatch(*session, header.command, header.packet_id, body);
            reader.settle();
            // The reply is built in one buffer that the connection keeps: result code, payload.
            reply.clear();
            reply.push_back(static_cast<char>(result.code));
            reply += result.payload;
            if (!connection->write(build_frame(FrameKind::Reply, header.command, header.packet_id, reply))) break;
            if (session->closing) break;
        }
    }
    connection->release();

    if (session) {
        session->shutdown();
        {
            std::lock_guard<std::mutex> guard(bridge.sessions_lock);
            auto& list = bridge.sessions;
            list.erase(std::remove(list.begin(), list.end(), session), list.end());
        }
        std::string name;
        {
            std::lock_guard<std::mutex> guard(session->session_lock);
            name = session->npid;
        }
        log_line(format_text("tcp: session for %s closed", name.empty() ? "?" : quote(name).c_str()));
    }
}

}  // namespace zq
