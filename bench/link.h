// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion and the connection to it, made by the library or by hand.
#ifndef ZEL_BENCH_LINK_H
#define ZEL_BENCH_LINK_H

#include <components/platform/zel_pair_connection.h>

#include <string>
#include <sys/types.h>
#include <vector>

namespace bench {

// The path of the companion program, beside this one.
const std::string &companion_path();

// fork and execv, the standard descriptors on /dev/null, as one would write it by hand. Returns the child's number.
pid_t start_by_hand(const std::vector<const char *> &argv);

enum class Route { pair, tcp };

// Closes its end and reaps the companion, which leaves at the end of the stream.
class Link {
public:
    // service: what the companion does, see companion.c.
    static Link by_library(Route route, const char *service);
    static Link by_hand(Route route, const char *service);
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link();

    int fd() const { return fd_; }
    PairHandle *pair() const { return pair_; } // null but for the library's pair

private:
    Link(int fd, pid_t pid, PairHandle *pair) : fd_(fd), pid_(pid), pair_(pair) {}

    int fd_;
    pid_t pid_;
    PairHandle *pair_;
};

} // namespace bench

#endif
