#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <string>
#include <thread>

#include "support/delay_wire.h"

namespace testing_support {

namespace {

using Clock = std::chrono::steady_clock;

struct Held {
    Clock::time_point due;
    std::string packet;
};

int open_tun(const std::string& name, std::string* error) {
    int fd = ::open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *error = "cannot open /dev/net/tun: " + std::string(std::strerror(errno));
        return -1;
    }
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (::ioctl(fd, TUNSETIFF, &request) < 0) {
        *error = "cannot make TUN device " + name + ": " + std::strerror(errno);
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

struct DelayWire::Impl {
    int ends[2] = {-1, -1};
    int wake[2] = {-1, -1};  // a pipe whose write end stops the thread
    std::chrono::milliseconds delay{0};
    std::deque<Held> held[2];  // held[i]: read from end i, to be written to the other
    std::thread thread;

    ~Impl() {
        if (thread.joinable()) {
            char stop = 0;
            (void)!::write(wake[1], &stop, 1);
            thread.join();
        }
        for (int fd : {ends[0], ends[1], wake[0], wake[1]})
            if (fd >= 0) ::close(fd);
    }

    // One delay for every packet keeps each direction first in, first out.
    void carry() {
        std::string buffer(65536, '\0');
        for (;;) {
            int wait_ms = -1;
            Clock::time_point now = Clock::now();
            for (auto& queue : held) {
                if (queue.empty()) continue;
                auto left = std::chrono::ceil<std::chrono::milliseconds>(queue.front().due - now).count();
                int ms = left < 0 ? 0 : static_cast<int>(left);
                if (wait_ms < 0 || ms < wait_ms) wait_ms = ms;
            }
            pollfd fds[3] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}, {wake[0], POLLIN, 0}};
            if (::poll(fds, 3, wait_ms) < 0 && errno != EINTR) return;
            if (fds[2].revents) return;
            now = Clock::now();
            for (int i = 0; i < 2; ++i) {
                if (!fds[i].revents) continue;
                for (;;) {
                    ssize_t got = ::read(ends[i], buffer.data(), buffer.size());
                    if (got <= 0) break;
                    held[i].push_back({now + delay, buffer.substr(0, static_cast<std::size_t>(got))});
                }
            }
            now = Clock::now();
            for (int i = 0; i < 2; ++i) {
                while (!held[i].empty() && held[i].front().due <= now) {
                    // A full device queue drops the packet, as a full line would.
                    (void)!::write(ends[1 - i], held[i].front().packet.data(), held[i].front().packet.size());
                    held[i].pop_front();
                }
            }
        }
    }
};

DelayWire::DelayWire() : impl_(std::make_unique<Impl>()) {}
DelayWire::~DelayWire() = default;

bool DelayWire::open(NetworkLab& lab, const std::string& ns_a, const std::string& dev_a, const std::string& ns_b,
                     const std::string& dev_b, int delay_ms, std::string* error) {
    std::string why;
    // A TUN device is made in the namespace of the thread that asks for it.
    lab.run_inside(ns_a, [&] { impl_->ends[0] = open_tun(dev_a, &why); });
    if (impl_->ends[0] >= 0) lab.run_inside(ns_b, [&] { impl_->ends[1] = open_tun(dev_b, &why); });
    if (impl_->ends[0] < 0 || impl_->ends[1] < 0) {
        *error = why.empty() ? lab.error() : why;
        return false;
    }
    if (::pipe2(impl_->wake, O_CLOEXEC) != 0) {
        *error = "cannot make a pipe";
        return false;
    }
    if (!lab.ip(ns_a, {"link", "set", dev_a, "up"}) || !lab.ip(ns_b, {"link", "set", dev_b, "up"})) {
        *error = lab.error();
        return false;
    }
    impl_->delay = std::chrono::milliseconds(delay_ms);
    impl_->thread = std::thread([this] { impl_->carry(); });
    return true;
}

}  // namespace testing_support
