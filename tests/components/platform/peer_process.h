// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A process of its own at the other end of a pair: it can wait, and write, while the test does.
#ifndef ZEL_TESTS_COMPONENTS_PLATFORM_PEER_PROCESS_H
#define ZEL_TESTS_COMPONENTS_PLATFORM_PEER_PROCESS_H

#include "pair_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

namespace zel::test {

// Forks a process that plays the peer on its end and leaves. Where the scope ends it is killed and reaped.
class PeerProcess {
public:
    PeerProcess(LocalPair &pair, const std::function<bool(int fd)> &play) : pid_(hook::fork.real()) {
        if (pid_ == 0) {
            alarm(60); // a test that hangs says so
            hook::close.real(pair.ph->rx_fd);
            _exit(play(pair.peer) ? 0 : 1);
        }
        pair.close_peer();
    }
    ~PeerProcess() {
        if (pid_ != -1) {
            hook::kill.real(pid_, SIGKILL);
        }
        did_well();
    }
    PeerProcess(const PeerProcess &) = delete;
    PeerProcess &operator=(const PeerProcess &) = delete;

    // Waits for its end. Whether it got what it was to get.
    bool did_well() const {
        if (pid_ != -1) {
            int status = -1;
            while (hook::waitpid.real(pid_, &status, 0) == -1 && errno == EINTR) {
            }
            well_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
            pid_ = -1;
        }
        return well_;
    }

private:
    mutable pid_t pid_;
    mutable bool well_ = false;
};

} // namespace zel::test

#endif
