#pragma once
// The matching half of the stand-in: rooms with numbered members and their endpoints,
// heartbeats, and one event queue per online id that a poll reads by cursor. Joins, leaves,
// kicks and closings queue the events the other members would see. Safe from several threads.

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "standin/call.h"

namespace standin {

class Matching {
public:
    // The paths answered by serve().
    static const char* const kPaths[];

    // Answers one of kPaths; nothing for any other path.
    std::optional<Answer> serve(const Call& call);

    // Appends an event (its Name and the keys beside it) to the queue of an online id.
    void push_event(const std::string& online_id, const nlohmann::json& event);
    // The cursor last acknowledged by an online id; 0 before any ack.
    std::uint64_t acked_cursor(const std::string& online_id) const;
    // The members of a room by member id, as the service holds them; empty for no such room.
    std::map<int, nlohmann::json> room_members(std::uint64_t room_id) const;
    std::vector<std::uint64_t> room_ids() const;
    // Ends a room as its host or a moderator would: every member hears room_closed.
    bool close_room(std::uint64_t room_id, const std::string& reason);
    // The public address of an online id: as he last reported it, else as his room knows it.
    std::optional<std::pair<std::string, int>> locate(const std::string& online_id) const;

    // Where the others are told to reach a member who reports this mapped address; nothing
    // keeps the mapped address. A service sets it to hand out relay addresses to players whose
    // NATs cannot be punched through. Called with the matching lock held.
    using Reach = std::function<std::optional<std::pair<std::string, int>>(const std::string& host, int port)>;
    void set_reach(Reach reach);

    // How the members of a room are told to reach each other: at the addresses they report as
    // public, at their LAN addresses, or at their relay addresses (the reach above).
    enum class Way { Public, Lan, Relay };
    // The way for two members as they report themselves (MappedAddr, MappedPort, LocalAddr,
    // LocalPort). Unset, every room takes the relay when a reach is set and the public way
    // otherwise. Set, a room starts on the public way and each join may move the whole room to
    // a later way of the list, so that both ends of every link agree on it.
    using Pairing = std::function<Way(const nlohmann::json& a, const nlohmann::json& b)>;
    void set_pairing(Pairing pairing);

private:
    struct Room {
        std::string session_id;
        int max_members = 0;
        int next_member = 1;
        std::map<int, nlohmann::json> members;
        std::map<int, nlohmann::json> reported;  // what each member last said of himself
        Way way = Way::Public;
    };

    // A member's record as the room's way shows him.
    nlohmann::json member_record_locked(int member_id, const nlohmann::json& body, Way way) const;
    std::pair<std::string, int> address_locked(const nlohmann::json& body, Way way) const;
    Way first_way_locked() const { return !pairing && reach ? Way::Relay : Way::Public; }
    Room* room_of_session_locked(const std::string& session_id, std::uint64_t* room_id);
    void tell_others_locked(const Room& room, int except, const nlohmann::json& event);

    mutable std::mutex lock;  // guards everything below
    std::map<std::uint64_t, Room> rooms;
    std::uint64_t next_room_id = 1001;
    std::map<std::string, std::vector<nlohmann::json>> event_queues;
    std::map<std::string, std::uint64_t> acked;
    std::map<std::string, std::pair<std::string, int>> signaled;  // online id -> reported address
    Reach reach;
    Pairing pairing;
};

}  // namespace standin
