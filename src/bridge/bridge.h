#pragma once
// The command port and the STUN responder, the threads that serve them, and the live sessions,
// with what they share: the summon advertisement, the STUN table and the state file.

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "http/fetch.h"
#include "p2p/gateway.h"
#include "shell/config.h"
#include "shell/connection_threads.h"
#include "shell/listener.h"
#include "shell/net.h"
#include "shell/util.h"

namespace zq {

class Session;

class Bridge {
public:
    explicit Bridge(Config config);
    ~Bridge();

    // Opens the command port and the STUN socket; the sessions use the gateway (null when off),
    // which must outlive stop. Empty when both are open, otherwise the reason, and the caller
    // stops what came up.
    std::string listen(p2p::Gateway* gateway);
    // Starts the threads that serve both.
    void serve();
    // Ends every session, as each connection's own thread does, and closes both; safe at any
    // time, any number of times.
    void stop();

    const Config& config() const { return config_; }
    bool running() const { return running_.load(); }
    // The ports actually held, which differ from the settings when those ask for port 0.
    int bound_tcp_port() const { return command_port_.port(); }
    int bound_udp_port() const { return bound_udp_port_; }
    // Null when p2p_gateway is off.
    p2p::Gateway* gateway() const { return gateway_; }

    // The live sessions, as of now.
    std::vector<std::shared_ptr<Session>> sessions();
    void add_session(std::shared_ptr<Session> session);
    void remove_session(const std::shared_ptr<Session>& session);

    // The last summon advertisement that held a SessionId, which room creation uses; null before.
    nlohmann::json advertisement();
    void set_advertisement(const nlohmann::json& advertisement);

    // Online id -> where its STUN ping last came from.
    std::map<std::string, Endpoint> stun_table();
    std::optional<Endpoint> stun_entry(const std::string& online_id);

    // The whole state file, read afresh: an empty object when it is missing, the document as it
    // is otherwise (any type), and an empty object with a log line when it is corrupt.
    nlohmann::json load_state();
    // Sets one account record in the file as it is now, under the file's lock that every
    // process takes, so that two logins at once, or a login and a one-shot command, all keep
    // their accounts. A corrupt file is first copied aside (and that is logged). False when the
    // file could not be written.
    bool save_account(const std::string& key, const nlohmann::json& record);

    // Tells the service our new public address, once for each logged-in session, in or out of
    // a room. Runs on a gateway thread; no lock is held over the calls.
    void on_mapped_change(const Endpoint& mapped);

    // Set by stop: every upstream call of every session ends at once.
    std::shared_ptr<const http::CancelFlag> cancel_flag() const { return cancel_; }

    // Game connections served at once. A game holds one, so this only bounds what a
    // misbehaving local program can take: when all are held, a connection that is idle without
    // a logged-in game loses its slot to the newcomer, and only when none is does the newcomer
    // wait for one.
    static constexpr int max_game_connections = 64;
    // What the frames that all game connections are receiving may hold together, beyond 64 KiB
    // each; a connection whose frame does not fit is closed.
    static constexpr std::size_t frame_memory_budget = 16u << 20;
    // A game sends its login right after Hello, and any frame comes whole: a connection whose
    // first frame has not come in this time from the accept, or any later frame in this time
    // from its first byte, is closed. Between frames a game may sit idle as long as it likes (in
    // menus it says nothing). Set before start.
    int frame_timeout_ms = 10000;
    // A game that stops reading fails a send after this long, instead of holding its
    // connection's send lock for ever.
    static constexpr int send_timeout_ms = 5000;

private:
    void stun_thread(Socket udp);

    const Config config_;
    p2p::Gateway* gateway_ = nullptr;  // not owned
    Socket udp_socket_ = invalid_socket;
    int bound_udp_port_ = 0;
    std::thread stun_thread_;
    std::atomic<bool> running_{false};
    // Raised by stop: the STUN thread waits on it beside its socket, so it does not wake while
    // nothing happens.
    StopSignal stop_signal_;

    ByteBudget frame_budget_{frame_memory_budget};

    std::shared_ptr<http::CancelFlag> cancel_ = std::make_shared<http::CancelFlag>();
    // Lock order: sessions_lock_, endpoints_lock_, state_lock_; each is held only for a copy,
    // never while calling into a session or out to the service.
    std::mutex sessions_lock_;
    std::vector<std::shared_ptr<Session>> sessions_;  // guarded by sessions_lock_
    nlohmann::json advertisement_;                    // guarded by sessions_lock_
    std::mutex endpoints_lock_;
    std::map<std::string, Endpoint> stun_table_;  // guarded by endpoints_lock_
    std::mutex state_lock_;                       // serialises reads and writes of the state file
    // The game connections: programs of this PC only, and of this user where the system tells.
    Listener command_port_;
};

}  // namespace zq
