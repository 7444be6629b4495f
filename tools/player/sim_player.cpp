#include "player/sim_player.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "bridge/frames.h"
#include "shell/byte_order.h"
#include "shell/util.h"

namespace sim {

namespace {

constexpr std::uint16_t kCmdLogin = 0;
constexpr std::uint16_t kCmdLogout = 1;
constexpr std::uint16_t kCmdContextStart = 100;
constexpr std::uint16_t kCmdCreateRoom = 101;
constexpr std::uint16_t kCmdJoinRoom = 102;
constexpr std::uint16_t kCmdLeaveRoom = 103;
constexpr std::uint16_t kCmdKickMember = 110;

constexpr double kReplySeconds = 15.0;
constexpr std::string_view kSimMagic{"SIM1", 4};
constexpr std::size_t kSimHeader = 28;

bool fail(std::string* error, const std::string& text) {
    if (error) *error = text;
    return false;
}

// Odd numbers travel with one-byte virtual ports, even ones with two-byte ports, so both
// peer frame forms are on the road.
std::pair<std::uint16_t, std::uint16_t> ports_for(std::uint32_t seq) {
    if (seq % 2) return {7, 9};
    return {3658, 3659};
}

}  // namespace

Member parse_member(const std::string& entry) {
    zq::FieldList fields;
    zq::decode(entry, fields);
    Member m;
    m.online_id = zq::string_field(fields, 1);
    m.member_id = static_cast<int>(zq::number_field(fields, 2, 0));
    m.owner = zq::number_field(fields, 4, 0) == 1;
    m.address.host = zq::string_field(fields, 10);
    m.address.port = static_cast<std::int32_t>(zq::number_field(fields, 11, 0));
    return m;
}

std::optional<RoomEvent> parse_room_event(std::string_view body) {
    auto fields = zq::read_request(body);
    if (!fields) return std::nullopt;
    RoomEvent e;
    e.context_id = zq::number_field(*fields, 1, 0);
    e.room_id = zq::number_field(*fields, 2, 0);
    e.code = static_cast<std::uint32_t>(zq::number_field(*fields, 3, 0));
    e.reason = static_cast<std::uint32_t>(zq::number_field(*fields, 4, 0));
    e.extra = static_cast<std::uint32_t>(zq::number_field(*fields, 5, 0));
    std::string entry = zq::string_field(*fields, 6);
    if (!entry.empty()) e.member = parse_member(entry);
    return e;
}

Room parse_room_reply(std::uint16_t command, std::string_view payload) {
    zq::FieldList fields = zq::read_request(payload).value_or(zq::FieldList{});
    const bool create = command == kCmdCreateRoom;
    Room room;
    room.room_id = zq::number_field(fields, 1, 0);
    room.member_id = static_cast<int>(zq::number_field(fields, create ? 5 : 2, 0));
    room.max_members = zq::number_field(fields, create ? 6 : 3, 0);
    zq::FieldList summary, block;
    zq::decode(zq::string_field(fields, create ? 9 : 6), summary);
    zq::decode(zq::string_field(summary, 1), block);
    room.free_places = zq::number_field(block, 3, 0);
    for (const auto& field : summary)
        if (field.number == 2 && field.wire_type == 2) room.members.push_back(parse_member(field.bytes));
    return room;
}

Player::Player(std::string online_id) : online_id_(std::move(online_id)) {
    zq::network_init();
    p2p_ = zq::open_udp_socket();
    zq::bind_socket(p2p_, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", 0}));
    zq::disable_udp_connreset(p2p_);
    p2p_address_ = zq::bound_endpoint(p2p_);
    reader_ = std::thread([this] { p2p_thread(); });
}

Player::~Player() {
    stopping_ = true;
    reader_.join();
    zq::close_socket(p2p_);
    disconnect();
}

// --- the command connection ---

bool Player::connect(int tcp_port, std::string* error) {
    disconnect();
    tcp_ = zq::open_tcp_socket();
    if (tcp_ == zq::invalid_socket || !zq::connect_socket(tcp_, zq::to_sockaddr(zq::Endpoint{"127.0.0.1", tcp_port})))
        return fail(error, zq::format_text("cannot connect to the command port %d", tcp_port));
    std::uint8_t kind = 0;
    std::uint16_t command = 0;
    std::string body;
    if (!read_frame(zq::steady_seconds() + kReplySeconds, kind, command, body) ||
        kind != static_cast<std::uint8_t>(zq::FrameKind::Hello))
        return fail(error, "no Hello frame from the bridge");
    return true;
}

void Player::disconnect() {
    if (tcp_ != zq::invalid_socket) {
        zq::shutdown_socket(tcp_);
        zq::close_socket(tcp_);
    }
    tcp_ = zq::invalid_socket;
    tcp_buffer_.clear();
}

bool Player::read_frame(double deadline, std::uint8_t& kind, std::uint16_t& command, std::string& body) {
    for (;;) {
        if (tcp_buffer_.size() >= zq::header_size) {
            zq::CommandHeader header = zq::parse_header(reinterpret_cast<const unsigned char*>(tcp_buffer_.data()));
            if (!header.size_ok()) return false;
            if (tcp_buffer_.size() >= header.total_size) {
                kind = header.kind;
                command = header.command;
                body = tcp_buffer_.substr(zq::header_size, header.body_size());
                tcp_buffer_.erase(0, header.total_size);
                return true;
            }
        }
        double left = deadline - zq::steady_seconds();
        if (tcp_ == zq::invalid_socket || left <= 0) return false;
        std::vector<bool> ready;
        if (zq::wait_readable({tcp_}, static_cast<int>(left * 1000) + 1, ready) < 1) continue;
        char chunk[16384];
        int n = zq::recv_some(tcp_, chunk, sizeof chunk);
        if (n < 1) return false;
        tcp_buffer_.append(chunk, static_cast<std::size_t>(n));
    }
}

bool Player::request(std::uint16_t command, std::string_view message, Reply& reply, std::string* error) {
    std::uint64_t packet = next_packet_++;
    std::string frame = zq::build_frame(zq::FrameKind::Request, command, packet, zq::wrap_message(message));
    if (!zq::send_all(tcp_, frame)) return fail(error, zq::format_text("command %d: the bridge is gone", command));
    double deadline = zq::steady_seconds() + kReplySeconds;
    for (;;) {
        std::uint8_t kind = 0;
        std::uint16_t number = 0;
        std::string body;
        if (!read_frame(deadline, kind, number, body))
            return fail(error, zq::format_text("command %d: no reply", command));
        if (kind == static_cast<std::uint8_t>(zq::FrameKind::Notification)) {
            note_event(body);
            continue;
        }
        if (kind != static_cast<std::uint8_t>(zq::FrameKind::Reply) || number != command) continue;
        reply.result = body.empty() ? -1 : static_cast<unsigned char>(body[0]);
        reply.payload = body.empty() ? std::string() : body.substr(1);
        if (reply.result != 0) return fail(error, zq::format_text("command %d: result %d", command, reply.result));
        return true;
    }
}

bool Player::login(std::string* error) {
    Reply reply;
    zq::FieldMessage m;
    m.string(1, online_id_).string(4, "sarnlink road");
    if (!request(kCmdLogin, m.bytes(), reply, error)) return false;
    account_id_ = zq::number_field(zq::read_request(reply.payload).value_or(zq::FieldList{}), 2, 0);
    return true;
}

bool Player::start_context(std::uint64_t context_id, std::string* error) {
    Reply reply;
    zq::FieldMessage m;
    m.number(1, context_id);
    if (!request(kCmdContextStart, m.bytes(), reply, error)) return false;
    context_id_ = context_id;
    return true;
}

std::optional<std::uint64_t> Player::create_room(int max_members, std::string* error) {
    Reply reply;
    zq::FieldMessage m;
    m.number(2, static_cast<std::uint64_t>(max_members));
    if (!request(kCmdCreateRoom, m.bytes(), reply, error)) return std::nullopt;
    learn_room(parse_room_reply(kCmdCreateRoom, reply.payload));
    return room_id_;
}

bool Player::join_room(std::uint64_t room_id, std::string* error) {
    Reply reply;
    zq::FieldMessage m;
    m.number(1, room_id);
    if (!request(kCmdJoinRoom, m.bytes(), reply, error)) return false;
    learn_room(parse_room_reply(kCmdJoinRoom, reply.payload));
    return true;
}

bool Player::leave_room(std::string* error) {
    Reply reply;
    zq::FieldMessage m;
    m.number(1, 77);
    if (!request(kCmdLeaveRoom, m.bytes(), reply, error)) return false;
    room_id_ = 0;
    member_id_ = 0;
    std::lock_guard<std::mutex> hold(state_lock);
    members_.clear();
    return true;
}

bool Player::kick(int member_id, std::string* error) {
    Reply reply;
    zq::FieldMessage m;
    m.number(1, 78).number(3, static_cast<std::uint64_t>(member_id));
    return request(kCmdKickMember, m.bytes(), reply, error);
}

bool Player::logout(std::string* error) {
    Reply reply;
    return request(kCmdLogout, "", reply, error);
}

void Player::learn_room(const Room& room) {
    room_id_ = room.room_id;
    member_id_ = room.member_id;
    std::lock_guard<std::mutex> hold(state_lock);
    members_.clear();
    for (const Member& m : room.members)
        if (m.member_id != member_id_) members_[m.member_id] = m;
}

void Player::note_event(const std::string& body) {
    auto parsed = parse_room_event(body);
    if (!parsed) return;
    RoomEvent e = std::move(*parsed);
    {
        std::lock_guard<std::mutex> hold(state_lock);
        if (e.code == kMemberJoined && e.member && e.member->member_id != member_id_)
            members_[e.member->member_id] = *e.member;
        if (e.code == kMemberLeft && e.member) members_.erase(e.member->member_id);
        if (e.code == kWeWereKicked) members_.clear();
    }
    if (e.code == kWeWereKicked || (e.code == kMemberLeft && e.member && e.member->member_id == member_id_)) {
        room_id_ = 0;
        member_id_ = 0;
    }
    events_.push_back(std::move(e));
}

std::optional<RoomEvent> Player::next_event(double seconds) {
    double deadline = zq::steady_seconds() + seconds;
    while (events_.empty()) {
        std::uint8_t kind = 0;
        std::uint16_t command = 0;
        std::string body;
        if (!read_frame(deadline, kind, command, body)) return std::nullopt;
        if (kind == static_cast<std::uint8_t>(zq::FrameKind::Notification)) note_event(body);
    }
    RoomEvent e = events_.front();
    events_.pop_front();
    return e;
}

std::map<int, Member> Player::peers() const {
    std::lock_guard<std::mutex> hold(state_lock);
    return members_;
}

// --- the P2P socket ---

bool Player::ping(int udp_port, std::string* error) {
    const zq::Endpoint responder{"127.0.0.1", udp_port};
    std::string request(1, '\x01');
    auto name = zq::p2p::fixed16(online_id_);
    request.append(name.data(), name.size());
    request.append(4, '\0');
    int before = 0;
    {
        std::lock_guard<std::mutex> hold(state_lock);
        udp_responder_ = responder;
        before = pings_answered_;
    }
    // A lost datagram is retried; the loop is bounded in count.
    for (int attempt = 0; attempt < 20; ++attempt) {
        zq::send_to(p2p_, request.data(), static_cast<int>(request.size()), zq::to_sockaddr(responder));
        double until = zq::steady_seconds() + 0.25;
        while (zq::steady_seconds() < until) {
            {
                std::lock_guard<std::mutex> hold(state_lock);
                if (pings_answered_ > before) return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    return fail(error, zq::format_text("no answer to the ping on udp %d", udp_port));
}

std::string Player::numbered_payload(const std::string& sender, std::uint32_t seq, std::uint16_t source,
                                     std::uint16_t destination) {
    std::string out = std::string(kSimMagic) + zq::be32_bytes(seq);
    auto name = zq::p2p::fixed16(sender);
    out.append(name.data(), name.size());
    out += zq::be16_bytes(source) + zq::be16_bytes(destination);
    std::size_t filler = 16 + seq % 97;
    for (std::size_t i = 0; i < filler; ++i) out.push_back(static_cast<char>((seq * 31 + i * 7) & 0xFF));
    return out;
}

void Player::send_numbered(const Member& peer, std::uint32_t count) {
    std::uint32_t first = 0;
    {
        std::lock_guard<std::mutex> hold(state_lock);
        first = sent_[peer.online_id] + 1;
        sent_[peer.online_id] += count;
    }
    zq::SockAddr to = zq::to_sockaddr(peer.address);
    for (std::uint32_t seq = first; seq < first + count; ++seq) {
        auto [source, destination] = ports_for(seq);
        std::string frame = zq::be16_bytes(source) + zq::be16_bytes(destination) +
                            numbered_payload(online_id_, seq, source, destination);
        zq::send_to(p2p_, frame.data(), static_cast<int>(frame.size()), to);
    }
}

std::uint32_t Player::sent_to(const std::string& online_id) const {
    std::lock_guard<std::mutex> hold(state_lock);
    auto found = sent_.find(online_id);
    return found == sent_.end() ? 0 : found->second;
}

Received Player::received_from(const std::string& online_id) const {
    std::lock_guard<std::mutex> hold(state_lock);
    auto found = received_.find(online_id);
    return found == received_.end() ? Received{} : found->second;
}

std::uint32_t Player::hellos_answered() const {
    std::lock_guard<std::mutex> hold(state_lock);
    return hellos_answered_;
}

void Player::p2p_thread() {
    std::string buffer(65536, '\0');
    while (!stopping_) {
        std::vector<bool> ready;
        if (zq::wait_readable({p2p_}, 100, ready) < 1) continue;
        zq::SockAddr from;
        int n = zq::recv_from(p2p_, buffer.data(), static_cast<int>(buffer.size()), &from);
        if (n < 0) continue;
        on_datagram(buffer.substr(0, static_cast<std::size_t>(n)), zq::from_sockaddr(from));
    }
}

void Player::on_datagram(const std::string& bytes, const zq::Endpoint& from) {
    {
        std::lock_guard<std::mutex> hold(state_lock);
        if (from == udp_responder_ && bytes.size() == 6) {
            ++pings_answered_;
            return;
        }
    }
    if (bytes.size() < 4) return;
    if (bytes.compare(0, 4, zq::p2p::kControlPrefix) == 0) {
        // The gateway plays our peer: answer its hello as a port would, from our side of the link.
        std::vector<std::string> answers;
        {
            std::lock_guard<std::mutex> hold(state_lock);
            zq::p2p::HelloRecord& record = hello_records_[from.text()];
            record.port_name = zq::p2p::fixed16(online_id_);
            answers = zq::p2p::answer_control(record, std::string_view(bytes).substr(4));
            if (!answers.empty()) ++hellos_answered_;
        }
        for (const auto& answer : answers) {
            std::string frame = zq::be16_bytes(0) + zq::be16_bytes(zq::p2p::kControlVirtualPort) + answer;
            zq::send_to(p2p_, frame.data(), static_cast<int>(frame.size()), zq::to_sockaddr(from));
        }
        return;
    }
    const std::uint16_t source = zq::be16(bytes, 0), destination = zq::be16(bytes, 2);
    std::string_view payload = std::string_view(bytes).substr(4);
    if (payload.size() < kSimHeader || payload.substr(0, 4) != kSimMagic) return;
    const std::uint32_t seq = zq::be32(payload, 4);
    std::string sender(payload.substr(8, 16));
    sender = sender.substr(0, sender.find('\0'));

    std::lock_guard<std::mutex> hold(state_lock);
    Received& got = received_[sender];
    bool met = false, from_known_link = false;
    for (const auto& [id, m] : members_) {
        met = met || m.online_id == sender;
        if (m.online_id == sender && m.address == from) from_known_link = true;
    }
    // The gateway opens a member's link before the bridge tells us of him, so his first
    // datagrams may come before the news of his joining does. A game drops them; so do we.
    if (!met) {
        ++got.unmet;
        return;
    }
    auto [want_source, want_destination] = ports_for(seq);
    if (!from_known_link || source != want_source || destination != want_destination ||
        payload != numbered_payload(sender, seq, source, destination)) {
        ++got.damaged;
        return;
    }
    got.highest = std::max(got.highest, seq);
    std::uint32_t& expected = next_expected_[sender];
    if (expected == 0) expected = 1;
    if (seq == expected) {
        ++got.in_order;
        ++expected;
    } else {
        ++got.out_of_order;
        if (seq > expected) expected = seq + 1;
    }
}

}  // namespace sim
