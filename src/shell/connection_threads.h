#pragma once
// What a listener that serves each connection on a thread of its own needs (shell/listener.h
// puts it together): a stop signal that wakes every waiting thread at once, the connection
// threads owned and joined as they end, the slots that cap the connections, and the memory
// budget of their receive buffers. Waiting threads sleep until something arrives or stop is
// under way: an idle listener or connection does not wake on a timer.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "shell/net.h"
#include "shell/util.h"

namespace zq {

// A UDP socket of its own that raise() makes readable for good (nobody reads the datagram), so
// every thread that waits on it beside its own socket wakes at once: shutting a socket down
// does not wake a blocked wait on every system.
class StopSignal {
public:
    StopSignal() = default;
    ~StopSignal() { close(); }
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    // Opens a fresh, lowered signal. Without a socket (the system refused one) waits fall back
    // to looking at the flag once in a while.
    void arm();
    void raise();
    // Only once no thread waits on it any more.
    void close();

    enum class Wait { Ready, TimedOut, Stopped, Failed };
    // Until s (invalid_socket: nothing but the signal) can be read, the deadline in steady
    // seconds passes (0: none), or the signal is raised.
    Wait wait(Socket s, double deadline);

private:
    Socket socket_ = invalid_socket;
    SockAddr address_;
    std::atomic<bool> raised_{false};
};

// The connection threads of one listener. Each is joined by the next start after it ended, or
// by join_all, so a thread that ended holds nothing but its handle until then.
class ConnectionThreads {
public:
    ConnectionThreads() = default;
    ~ConnectionThreads() { join_all(); }
    ConnectionThreads(const ConnectionThreads&) = delete;
    ConnectionThreads& operator=(const ConnectionThreads&) = delete;

    // Runs serve on a thread of its own; false when the system gives no thread (its reason in
    // *why), and the caller refuses the connection and goes on.
    bool start(std::function<void()> serve, std::string* why = nullptr);
    // Every thread started so far, joined; the callers have woken them first.
    void join_all();

    std::atomic<std::int32_t> active{0};  // threads whose serve has not returned

private:
    std::mutex lock_;
    std::uint64_t next_ = 0;                      // guarded by lock_
    std::map<std::uint64_t, std::thread> threads_;  // guarded by lock_
    std::vector<std::uint64_t> ended_;              // guarded by lock_
};

// The open connections of one listener, at most a limit of them, and whether each waits on
// its peer. A full listener takes a slot back from the connection whose peer has kept it
// waiting longest (one that sends nothing, or reads nothing) rather than refuse a newcomer, so
// that whoever holds every slot without using it cannot lock the game out. Where every slot
// works, newcomers wait in the listener's queue, and connections that serve one exchange after
// another (pipelining clients that never read keep theirs busy for ever) give way to them
// between two exchanges.
class ConnectionSlots {
public:
    class Slot {
    public:
        // From now on the connection waits on its peer: for its bytes, or for it to read ours.
        // Such a slot may be taken back.
        void waiting() { since_ = steady_seconds(); }
        // The connection works for its peer (a command or a handler runs): not taken back.
        void working() { since_ = -1.0; }
        // A kept slot (a logged-in game) is never taken back.
        void keep(bool kept) { kept_ = kept; }
        // Asked by the connection's own thread before it answers an exchange: true when a
        // newcomer waits for a slot, and then the connection ends once this answer is out. Its
        // slot is taken back at once if the peer does not read that answer.
        bool give_way() { return owner_.give_way(*this); }

    private:
        friend class ConnectionSlots;
        Slot(ConnectionSlots& owner, std::function<void()> wake, std::string peer)
            : owner_(owner), wake_(std::move(wake)), peer_(std::move(peer)) {}
        ConnectionSlots& owner_;  // outlives every thread that serves a connection
        const std::function<void()> wake_;  // ends the connection's waits: shuts its socket down
        const std::string peer_;
        // A new connection counts as working until its thread first waits: a slot is never
        // taken back before its connection has been looked at.
        std::atomic<double> since_{-1.0};
        std::atomic<bool> kept_{false};
        bool taken_ = false;       // guarded by the slots' lock
        bool giving_way_ = false;  // guarded by the slots' lock
    };

    // A slot for a new connection while fewer than limit are held. When they are all held, the
    // one that has waited longest is taken back, if it has waited since before the newcomer
    // came (steady seconds) or for long: wake is called to end it (which must be safe until
    // close), its peer's text goes to *taken, and its slot counts as free from now on. A
    // connection that waits a moment between its peer's bytes and its answer thus keeps its
    // slot against those queued behind it. Null when no slot can be taken back: all work, are
    // kept or began waiting just now, or too many are still ending.
    std::shared_ptr<Slot> open(std::function<void()> wake, const std::string& peer, double came, int limit,
                               std::string* taken);
    // When the connection ends.
    void close(const std::shared_ptr<Slot>& slot);
    // Wakes every connection; for stop.
    void wake_all();
    // How many newcomers wait for a slot: as many connections give way, at most, until the
    // next call.
    void set_newcomers(int waiting);

private:
    bool give_way(Slot& slot);

    std::mutex lock_;
    std::vector<std::shared_ptr<Slot>> slots_;  // guarded by lock_
    int taken_ = 0;                             // taken back but not closed yet; guarded by lock_
    int newcomers_ = 0;                         // not yet given way to; guarded by lock_
};

// Bytes that the connections of one listener may buffer beyond a small allowance each, so that
// many peers that each send most of a large message cannot make the process commit their sum.
class ByteBudget {
public:
    explicit ByteBudget(std::size_t total) : left_(total) {}
    ByteBudget(const ByteBudget&) = delete;
    ByteBudget& operator=(const ByteBudget&) = delete;

    bool take(std::size_t bytes);
    void give(std::size_t bytes) { left_ += bytes; }

private:
    std::atomic<std::size_t> left_;
};

// A connection's receive buffer. It grows only as bytes arrive, what it holds beyond the
// allowance is paid for from the budget (an append that the budget cannot pay for fails), and
// a large one is given back to the system once it is empty.
class ReceiveBuffer {
public:
    ReceiveBuffer(ByteBudget& budget, std::size_t allowance) : budget_(budget), allowance_(allowance) {}
    ~ReceiveBuffer();
    ReceiveBuffer(const ReceiveBuffer&) = delete;
    ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;

    bool append(const char* data, std::size_t size);
    // Drops the first size bytes.
    void consume(std::size_t size);
    std::string_view bytes() const { return {data_, size_}; }
    std::size_t size() const { return size_; }

private:
    // Makes what is paid for cover capacity bytes; false when the budget has too little left.
    bool pay_for(std::size_t capacity);
    bool move_to(std::size_t capacity);
    void release();

    ByteBudget& budget_;
    const std::size_t allowance_;
    std::size_t paid_ = 0;
    char* data_ = nullptr;  // from the heap up to the allowance, from the system's pages beyond
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

}  // namespace zq
