#pragma once
// What /proc tells of a process the benches started: its private memory and its CPU time.

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "support/files.h"

namespace bench {

// Anonymous plus private dirty memory in KiB, each page once: what is the process's own, as the
// shared pages of the system's libraries are not. A written page of a private file mapping is
// counted in both, so each mapping adds the larger of the two.
struct PrivateMemory {
    long long anonymous = 0, private_dirty = 0, both = 0;
    double mib() const { return static_cast<double>(both) / 1024.0; }
};

inline PrivateMemory private_memory(pid_t pid) {
    std::istringstream smaps(testing_support::read_file("/proc/" + std::to_string(pid) + "/smaps"));
    PrivateMemory p;
    long long anonymous = 0, dirty = 0;
    std::string line;
    while (std::getline(smaps, line)) {
        if (line.compare(0, 10, "Anonymous:") == 0) {
            anonymous = std::stoll(line.substr(10));
            p.anonymous += anonymous;
        } else if (line.compare(0, 14, "Private_Dirty:") == 0) {
            dirty = std::stoll(line.substr(14));
            p.private_dirty += dirty;
        } else if (line.compare(0, 8, "VmFlags:") == 0) {  // the last line of each mapping
            p.both += std::max(anonymous, dirty);
            anonymous = dirty = 0;
        }
    }
    return p;
}

// User and system time of all its threads, in seconds.
inline double cpu_seconds_of(pid_t pid) {
    const std::string stat = testing_support::read_file("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skip;
    long long utime = 0, stime = 0;
    for (int i = 3; i < 14; ++i) fields >> skip;
    fields >> utime >> stime;
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace bench
