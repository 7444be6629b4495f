#pragma once
// A listening TCP socket and everything that serves it: the accept thread, the rule of who is
// served, the cap on connections with its slots, a thread per connection, and stop. The
// command port and the HTTP servers differ only in what they do with a connection and in the
// words of their log lines.

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "shell/connection_threads.h"
#include "shell/net.h"
#include "shell/peer_filter.h"

namespace zq {

class Listener {
public:
    // One accepted connection, as the thread that serves it sees it.
    class Connection {
    public:
        ~Connection();
        Socket socket() const { return socket_; }
        const Endpoint& peer() const { return peer_; }
        ConnectionSlots::Slot& slot() { return *slot_; }
        // Until the socket can be read, the deadline in steady seconds passes (0: none), or the
        // connection is ended; true only for the first.
        bool wait_readable(double deadline) { return wake_.wait(socket_, deadline) == StopSignal::Wait::Ready; }
        // Ends every wait and every send and receive on it, for good; from any thread. The
        // socket itself is closed with this object, so no caller meets a reused handle.
        void end();
        bool ended() const { return ended_.load(); }
        // Sends the whole buffer under a lock of its own, so that the messages of two threads
        // never interleave. False, and the connection is ended, when a send fails; false at once
        // when it has ended.
        bool send(std::string_view bytes);

    private:
        friend class Listener;
        Connection(Socket s, Endpoint peer) : socket_(s), peer_(std::move(peer)) { wake_.arm(); }
        const Socket socket_;
        const Endpoint peer_;
        const double accepted_ = steady_seconds();
        std::shared_ptr<ConnectionSlots::Slot> slot_;
        // A shut-down socket does not wake a wait on every system.
        StopSignal wake_;
        std::atomic<bool> ended_{false};
        std::mutex send_lock_;
    };

    // What the log is told, rate-limited; each listener has its own words for them.
    enum class Event {
        AcceptFailed,  // detail: the system's error number; the listener rests, then goes on
        NotServed,     // a peer that the filter does not admit, closed
        OtherUser,     // a program of another user of this PC, closed
        SlotTaken,     // detail: the peer whose slot the newcomer took
        Full,          // no slot could be taken back, so the newcomer waits in the queue
        NoThread,      // detail: why; the newcomer is closed
    };
    using Describe = std::function<std::string(Event, const Endpoint& peer, const std::string& detail)>;
    using Serve = std::function<void(const std::shared_ptr<Connection>&)>;

    ~Listener() { stop(); }

    // Binds host (dotted IPv4) and port (0 picks a free one) so that no other program can
    // share it, and listens. False, with the system's error number in *error, when it cannot.
    bool listen(const std::string& host, int port, int backlog, int* error);
    // Serves every connection that the rules admit with serve, on a thread of its own. cause
    // tells this listener's lines apart in the log's rate limits.
    void start(Serve serve, std::string cause, Describe describe);
    // Safe at any time and any number of times: no connection is accepted any more, every one
    // is ended, and every thread is joined before it returns.
    void stop();
    // Ends every open connection, without an answer.
    void end_all() { slots_.wake_all(); }

    int port() const { return port_; }
    std::atomic<std::int32_t>& active_connections() { return threads_.active; }

    // The rules, set before start.
    PeerFilter peers = PeerFilter::everyone();
    bool same_user_only = false;  // also refuses programs of this PC that run as another user
    int max_connections = 64;     // see ConnectionSlots for who loses a slot when all are held

private:
    void accept_thread();
    // Gives slots to the queue's connections in the order they came, as far as slots can be
    // had, and starts their threads; under queue_lock_.
    void admit_queued_locked();
    void say(Event event, const Endpoint& peer, const std::string& detail = {});

    Socket socket_ = invalid_socket;
    int port_ = 0;
    Serve serve_;
    std::string cause_;
    Describe describe_;
    StopSignal stop_signal_;  // raised by stop; the accept thread waits on it beside the socket
    ConnectionSlots slots_;
    ConnectionThreads threads_;
    // Accepted connections that wait for a slot, at most max_connections of them; beyond that
    // they wait in the system's backlog. First come, first served: a client that is cut off
    // and comes back at once queues behind those that came meanwhile. The accept thread and
    // every connection thread that ends admit from it.
    std::mutex queue_lock_;
    std::deque<std::shared_ptr<Connection>> queue_;  // guarded by queue_lock_
    bool stopping_ = false;                          // guarded by queue_lock_
    std::thread accept_thread_;  // last: joined before what it uses goes
};

}  // namespace zq
