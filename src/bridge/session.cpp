#include "bridge/session.h"

#include "bridge/bridge.h"
#include "bridge/dispatch.h"
#include "bridge/frames.h"
#include "shell/log.h"

namespace zq {

Session::Session(std::shared_ptr<Listener::Connection> conn, Bridge* owner)
    : connection(std::move(conn)), bridge(owner), upstream(owner->config().velmar_server) {
    if (!owner->config().user_agent.empty()) upstream.client_mark = owner->config().user_agent;
    upstream.cancel = owner->cancel_flag();
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
    request_pump_stop();
    {
        std::lock_guard<std::mutex> guard(thread_lock);
        if (pump_thread.joinable() && pump_thread.get_id() != std::this_thread::get_id()) pump_thread.join();
    }
    std::lock_guard<std::mutex> guard(session_lock);
    // When the bridge stops, calls are cancelled; leaving the room still goes out, briefly.
    leave_room_locked(upstream.cancel && upstream.cancel->cancelled());
    publish_status_locked();
}

SessionStatus Session::status() const {
    std::lock_guard<std::mutex> guard(status_lock);
    return status_;
}

void Session::publish_status_locked() {
    SessionStatus now{call_online_id(), logged_in, room.room_id, room.member_id, room.owner_member_id,
                      room.max_members, {}, npid, room.session_id};
    for (const auto& [id, record] : room.members) now.members[id] = json_text(record, "OnlineId", "");
    std::lock_guard<std::mutex> guard(status_lock);
    status_ = std::move(now);
}

std::string quote(const std::string& text) { return std::string("'").append(printable(text)).append("'"); }

namespace {

// The bytes of a game connection as they arrive: one receive often holds a whole frame, or
// several. The buffer grows with the bytes that arrive, never with what a header announces,
// and a large one is let go once its frame is done.
class FrameReader {
public:
    FrameReader(Bridge& bridge, Listener::Connection& connection, ByteBudget& budget)
        : bridge_(bridge), connection_(connection), buffer_(budget, block_size) {}

    // Makes size unread bytes available. False on end of stream or error, after the deadline
    // (steady seconds, 0 for none), when the budget cannot pay for them, or once the connection
    // or the bridge is being closed.
    bool need(std::size_t size, double deadline) {
        while (buffer_.size() - read_ < size) {
            if (!bridge_.running() || !connection_.wait_readable(deadline) || connection_.ended()) return false;
            if (!block_) block_.reset(new char[block_size]);  // not cleared: receives fill it
            const int n = recv_some(connection_.socket(), block_.get(), block_size);
            if (n < 1) return false;
            buffer_.consume(read_);
            read_ = 0;
            if (!buffer_.append(block_.get(), static_cast<std::size_t>(n))) {
                over_budget_ = true;
                return false;
            }
        }
        return true;
    }
    // The next size bytes, which need made available; valid until the next need.
    std::string_view take(std::size_t size) {
        std::string_view out(buffer_.bytes().data() + read_, size);
        read_ += size;
        return out;
    }
    // After a frame is done: a buffer that a large frame grew is given back.
    void settle() {
        if (read_ == buffer_.size()) {
            buffer_.consume(read_);
            read_ = 0;
        }
    }
    bool over_budget() const { return over_budget_; }

private:
    static constexpr int block_size = 0x10000;
    Bridge& bridge_;
    Listener::Connection& connection_;
    ReceiveBuffer buffer_;
    std::size_t read_ = 0;  // bytes of buffer_ already taken
    std::unique_ptr<char[]> block_;
    bool over_budget_ = false;
};

}  // namespace

void session_loop(Bridge& bridge, const std::shared_ptr<Listener::Connection>& connection, ByteBudget& budget) {
    set_tcp_nodelay(connection->socket());
    set_send_timeout(connection->socket(), Bridge::send_timeout_ms);
    log_line("tcp: connection from " + connection->peer().text());
    ConnectionSlots::Slot& slot = connection->slot();
    std::shared_ptr<Session> session;
    if (connection->send(hello_frame())) {
        FrameReader reader(bridge, *connection, budget);
        std::string reply;
        const double frame_seconds = bridge.frame_timeout_ms / 1000.0;
        // The first frame is due from the accept, every later one from its first byte: a game
        // may sit idle between frames for as long as it likes, never in the middle of one.
        double deadline = steady_seconds() + frame_seconds;
        while (bridge.running() && !connection->ended()) {
            slot.waiting();
            if (!reader.need(1, deadline)) break;
            if (deadline == 0) deadline = steady_seconds() + frame_seconds;
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

            slot.working();
            if (!session) {
                session = std::make_shared<Session>(connection, &bridge);
                bridge.add_session(session);
            }
            CommandResult result = dispatch(*session, header.command, header.packet_id, body);
            reader.settle();
            // A logged-in game keeps its slot however long it then sits idle.
            slot.keep(session->logged_in);
            // The reply is built in one buffer that the connection keeps: result code, payload.
            reply.clear();
            reply.push_back(static_cast<char>(result.code));
            reply += result.payload;
            if (!connection->send(build_frame(FrameKind::Reply, header.command, header.packet_id, reply))) break;
            if (session->closing) break;
        }
        if (reader.over_budget())
            log_limited("tcp frame memory", "tcp: closed a connection whose frame did not fit in the memory left for "
                                            "frames");
    }
    connection->end();

    if (session) {
        session->shutdown();
        bridge.remove_session(session);
        const std::string name = session->status().npid;
        log_line(format_text("tcp: session for %s closed", name.empty() ? "?" : quote(name).c_str()));
    }
}

}  // namespace zq
