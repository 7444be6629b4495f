#include "shell/connection_threads.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <system_error>

#include "shell/pages.h"
#include "shell/platform.h"
#include "shell/util.h"

namespace zq {

namespace {
// How often a wait without the signal's socket looks at the flag.
constexpr double fallback_slice = 0.2;
// A connection that has waited on its peer this long (seconds) loses its slot to any newcomer.
constexpr double long_wait = 1.0;
}  // namespace

void StopSignal::arm() {
    close();
    raised_ = false;
    network_init();
    socket_ = open_udp_socket();
    if (socket_ != invalid_socket &&
        (!bind_socket(socket_, to_sockaddr(Endpoint{"127.0.0.1", 0})) || !local_address(socket_, &address_))) {
        close_socket(socket_);
        socket_ = invalid_socket;
    }
}

void StopSignal::raise() {
    raised_ = true;
    if (socket_ != invalid_socket) send_to(socket_, "x", 1, address_);
}

void StopSignal::close() {
    close_socket(socket_);
    socket_ = invalid_socket;
}

StopSignal::Wait StopSignal::wait(Socket s, double deadline) {
    for (;;) {
        if (raised_) return Wait::Stopped;
        int timeout_ms = -1;
        if (deadline > 0) {
            const double left = deadline - steady_seconds();
            if (left <= 0) return Wait::TimedOut;
            timeout_ms = static_cast<int>(left * 1000) + 1;
        }
        if (socket_ == invalid_socket) {
            const int slice = static_cast<int>(fallback_slice * 1000);
            timeout_ms = timeout_ms < 0 || timeout_ms > slice ? slice : timeout_ms;
        }
        if (s == invalid_socket && socket_ == invalid_socket) {
            sleep_ms(timeout_ms);
            continue;
        }
        const int ready = wait_readable_pair(s, socket_, timeout_ms);
        if (ready < 0) {
            // Rare (out of memory); a short rest keeps a caller's loop from spinning on it.
            sleep_ms(50);
            return Wait::Failed;
        }
        if (raised_ || (ready & 2)) return Wait::Stopped;
        if (ready & 1) return Wait::Ready;
    }
}

bool ConnectionThreads::start(std::function<void()> serve, std::string* why) {
    std::vector<std::thread> ended;
    bool started = true;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (std::uint64_t id : ended_) {
            auto it = threads_.find(id);
            if (it == threads_.end()) continue;
            ended.push_back(std::move(it->second));
            threads_.erase(it);
        }
        ended_.clear();
        const std::uint64_t id = next_++;
        ++active;
        try {
            // The thread reports its end under the lock that this insertion holds, so its id is
            // always in the map by then.
            threads_.emplace(id, std::thread([this, id, serve = std::move(serve)] {
                serve();
                bool last = false;
                {
                    std::lock_guard<std::mutex> done(lock_);
                    ended_.push_back(id);
                    last = --active == 0;
                }
                // A burst of connections leaves its buffers free in the allocator, which would
                // keep them for the next burst however long that is in coming.
                if (last) release_free_memory();
            }));
        } catch (const std::system_error& e) {
            if (why) *why = e.what();
            --active;
            started = false;
        }
    }
    for (auto& thread : ended) thread.join();
    return started;
}

void ConnectionThreads::join_all() {
    std::map<std::uint64_t, std::thread> all;
    {
        std::lock_guard<std::mutex> guard(lock_);
        all.swap(threads_);
        ended_.clear();
    }
    for (auto& [id, thread] : all) thread.join();
}

std::shared_ptr<ConnectionSlots::Slot> ConnectionSlots::open(std::function<void()> wake, const std::string& peer,
                                                            double came, int limit, std::string* taken) {
    std::lock_guard<std::mutex> guard(lock_);
    std::shared_ptr<Slot> victim;
    if (static_cast<int>(slots_.size()) - taken_ >= limit) {
        // Those taken back end at once unless a handler is still busy; never more of them than
        // the limit, so that threads stay bounded.
        if (taken_ >= limit) return nullptr;
        const double now = steady_seconds();
        double oldest = 0;
        for (const auto& slot : slots_) {
            const double since = slot->since_;
            if (slot->taken_ || slot->kept_ || since < 0) continue;
            // One that gave way and still waits has a peer that does not read its last answer:
            // it goes first, whenever it began to wait.
            if (!slot->giving_way_ && since >= came && since > now - long_wait) continue;
            const double rank = slot->giving_way_ ? 0.0 : since;
            if (!victim || rank < oldest) {
                victim = slot;
                oldest = rank;
            }
        }
        if (!victim) return nullptr;
        victim->taken_ = true;
        ++taken_;
        // Under the lock, so that the connection cannot close (and its socket be reused) meanwhile.
        victim->wake_();
        if (taken) *taken = victim->peer_;
    }
    auto slot = std::shared_ptr<Slot>(new Slot(*this, std::move(wake), peer));
    slots_.push_back(slot);
    return slot;
}

void ConnectionSlots::close(const std::shared_ptr<Slot>& slot) {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = std::find(slots_.begin(), slots_.end(), slot);
    if (it == slots_.end()) return;
    if ((*it)->taken_) --taken_;
    slots_.erase(it);
}

void ConnectionSlots::wake_all() {
    std::lock_guard<std::mutex> guard(lock_);
    for (const auto& slot : slots_) slot->wake_();
}

void ConnectionSlots::set_newcomers(int waiting) {
    std::lock_guard<std::mutex> guard(lock_);
    newcomers_ = waiting;
}

bool ConnectionSlots::give_way(Slot& slot) {
    std::lock_guard<std::mutex> guard(lock_);
    if (newcomers_ <= 0 || slot.taken_ || slot.kept_ || slot.giving_way_) return false;
    --newcomers_;
    slot.giving_way_ = true;
    return true;
}

bool ByteBudget::take(std::size_t bytes) {
    std::size_t left = left_.load();
    do {
        if (left < bytes) return false;
    } while (!left_.compare_exchange_weak(left, left - bytes));
    return true;
}

ReceiveBuffer::~ReceiveBuffer() {
    release();
    pay_for(0);
}

bool ReceiveBuffer::pay_for(std::size_t capacity) {
    const std::size_t due = capacity > allowance_ ? capacity - allowance_ : 0;
    if (due > paid_ && !budget_.take(due - paid_)) return false;
    if (due < paid_) budget_.give(paid_ - due);
    paid_ = due;
    return true;
}

bool ReceiveBuffer::move_to(std::size_t capacity) {
    char* fresh = capacity > allowance_ ? allocate_pages(capacity) : new (std::nothrow) char[capacity];
    if (!fresh) return false;
    if (size_ > 0) std::memcpy(fresh, data_, size_);
    release();
    data_ = fresh;
    capacity_ = capacity;
    return true;
}

void ReceiveBuffer::release() {
    if (capacity_ > allowance_)
        free_pages(data_, capacity_);
    else
        delete[] data_;
    data_ = nullptr;
    capacity_ = 0;
}

bool ReceiveBuffer::append(const char* data, std::size_t size) {
    const std::size_t needed = size_ + size;
    if (needed > capacity_) {
        // Room for a little more than has come, never for what a header merely announces.
        std::size_t capacity = std::max(needed, capacity_ + capacity_ / 2);
        if (!pay_for(capacity)) capacity = needed;
        if (!pay_for(capacity) || !move_to(capacity)) {
            pay_for(capacity_);
            return false;
        }
    }
    std::memcpy(data_ + size_, data, size);
    size_ = needed;
    return true;
}

void ReceiveBuffer::consume(std::size_t size) {
    if (size_ > size) std::memmove(data_, data_ + size, size_ - size);
    size_ -= size;
    if (size_ == 0 && capacity_ > allowance_) {
        release();
        pay_for(0);
    }
}

}  // namespace zq
