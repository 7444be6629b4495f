#pragma once
// A simulated player: plays the game port's side of one bridge. It speaks the command protocol
// on the bridge's TCP port (login, context, rooms, RoomEvent notifications) and owns a P2P
// socket, as the port does, from which it pings the bridge's UDP responder, answers the
// gateway's control hellos and sends numbered port frames to its peers' loopback addresses.
//
// The command side is used from one thread at a time. The P2P socket is read by the player's
// own thread, so hellos are answered and datagrams counted while the caller waits on anything.
//
// Numbered payload, inside a port frame (big-endian):
//   | 0  | 4  | "SIM1"                                    |
//   | 4  | 4  | sequence number, from 1 per receiver      |
//   | 8  | 16 | sender's online id, zero-padded           |
//   | 24 | 2  | source virtual port, as put in the frame  |
//   | 26 | 2  | destination virtual port                  |
//   | 28 | n  | filler derived from the sequence number   |

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "p2p/framing.h"
#include "shell/net.h"

namespace sim {

// A member as a RoomSummary or a RoomEvent tells it: where the game reaches it.
struct Member {
    int member_id = 0;
    std::string online_id;
    zq::Endpoint address;
    bool owner = false;
};

// A room as the reply to a create or a join tells it.
struct Room {
    std::uint64_t room_id = 0;
    int member_id = 0;
    std::uint64_t max_members = 0;  // the reply's own field
    std::uint64_t free_places = 0;  // the room block's
    std::vector<Member> members;  // every entry, ourselves included, in the order sent
};

struct RoomEvent {
    std::uint64_t context_id = 0;
    std::uint64_t room_id = 0;
    std::uint32_t code = 0;  // 4353 joined, 4354 left, 4355 we were kicked
    std::uint32_t reason = 0;
    std::uint32_t extra = 0;
    std::optional<Member> member;
};

inline constexpr std::uint32_t kMemberJoined = 4353;
inline constexpr std::uint32_t kMemberLeft = 4354;
inline constexpr std::uint32_t kWeWereKicked = 4355;

// Readers of what the bridge sends the game, from the bytes behind a reply's result code or a
// notification's body (a length-prefixed field message); lenient as the game is.
Member parse_member(const std::string& entry);
std::optional<RoomEvent> parse_room_event(std::string_view body);
// The reply to command 101 (create) or 102 (join).
Room parse_room_reply(std::uint16_t command, std::string_view payload);

// What arrived from one sender.
struct Received {
    std::uint32_t in_order = 0;  // frames that came with the next expected number
    std::uint32_t out_of_order = 0;
    std::uint32_t damaged = 0;   // wrong magic, filler, ports, or source address
    std::uint32_t unmet = 0;     // well-formed, but from a member not yet heard of
    std::uint32_t highest = 0;   // the highest sequence number among those counted in order or out
};

class Player {
public:
    explicit Player(std::string online_id);
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    const std::string& online_id() const { return online_id_; }
    // Where the P2P socket lives: what the bridge learns from the ping.
    zq::Endpoint p2p_address() const { return p2p_address_; }

    // Each returns false and fills *error (when given) on failure; waits are bounded.
    bool connect(int tcp_port, std::string* error = nullptr);
    bool login(std::string* error = nullptr);
    bool ping(int udp_port, std::string* error = nullptr);
    bool start_context(std::uint64_t context_id, std::string* error = nullptr);
    std::optional<std::uint64_t> create_room(int max_members, std::string* error = nullptr);
    bool join_room(std::uint64_t room_id, std::string* error = nullptr);
    bool leave_room(std::string* error = nullptr);
    bool kick(int member_id, std::string* error = nullptr);
    bool logout(std::string* error = nullptr);
    // Drops the command connection without a word, as a crashing game would.
    void disconnect();

    std::uint64_t account_id() const { return account_id_; }
    std::uint64_t room_id() const { return room_id_; }
    int member_id() const { return member_id_; }
    // The other members as last told, by member id; events keep it current.
    std::map<int, Member> peers() const;

    // The next RoomEvent notification within the deadline; events seen while waiting for a
    // reply are kept for this.
    std::optional<RoomEvent> next_event(double seconds = 10.0);

    // Sends numbered frames 1..count (continuing earlier numbers) to a peer's loopback address.
    void send_numbered(const Member& peer, std::uint32_t count);
    std::uint32_t sent_to(const std::string& online_id) const;
    Received received_from(const std::string& online_id) const;
    // Control frames from the gateway that were answered, over all links.
    std::uint32_t hellos_answered() const;

    // The payload of frame number seq from sender to the given virtual ports.
    static std::string numbered_payload(const std::string& sender, std::uint32_t seq, std::uint16_t source,
                                        std::uint16_t destination);

private:
    struct Reply {
        int result = -1;
        std::string payload;
    };

    bool request(std::uint16_t command, std::string_view message, Reply& reply, std::string* error);
    bool read_frame(double deadline, std::uint8_t& kind, std::uint16_t& command, std::string& body);
    void note_event(const std::string& body);
    void learn_room(const Room& room);
    void p2p_thread();
    void on_datagram(const std::string& bytes, const zq::Endpoint& from);

    const std::string online_id_;
    zq::Socket tcp_ = zq::invalid_socket;
    std::string tcp_buffer_;
    std::uint64_t next_packet_ = 1;
    std::uint64_t account_id_ = 0;
    std::uint64_t context_id_ = 0;
    std::uint64_t room_id_ = 0;
    int member_id_ = 0;
    std::deque<RoomEvent> events_;

    zq::Socket p2p_ = zq::invalid_socket;
    zq::Endpoint p2p_address_;

    mutable std::mutex state_lock;  // guards everything below
    zq::Endpoint udp_responder_;    // set by ping, read by the reader thread
    std::map<int, Member> members_;
    std::map<std::string, std::uint32_t> sent_;
    std::map<std::string, std::uint32_t> next_expected_;
    std::map<std::string, Received> received_;
    std::map<std::string, zq::p2p::HelloRecord> hello_records_;  // by the link's "host:port"
    std::uint32_t hellos_answered_ = 0;
    int pings_answered_ = 0;

    std::atomic<bool> stopping_{false};
    std::thread reader_;  // declared after the socket it reads, so it is joined first
};

}  // namespace sim
