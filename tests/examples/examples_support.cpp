// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Running the examples.
#include "examples_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace zel::test {

namespace {

class ExampleWorld : public testing::Environment {
    void SetUp() override {
        adopt_orphans();
        setenv("LSAN_OPTIONS", "print_suppressions=0:suppressions=" ZEL_LEAKS, 1);
    }
};

[[maybe_unused]] const testing::Environment *const example_world =
    testing::AddGlobalTestEnvironment(new ExampleWorld); // GoogleTest owns it

} // namespace

std::string example(const std::string &name) {
    return ZEL_BINARY_DIR "/examples/" + name;
}

std::string part(const std::string &name) {
    return ZEL_EXAMPLE_PARTS "/" + name;
}

void adopt_orphans() {
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
}

Outcome run_with(const std::vector<std::string> &settings, const std::vector<std::string> &command) {
    std::vector<std::string> whole = {"env"};
    whole.insert(whole.end(), settings.begin(), settings.end());
    whole.insert(whole.end(), command.begin(), command.end());
    return run_program(whole);
}

void give_up_in_time(int socket) {
    const timeval limit = {.tv_sec = 20, .tv_usec = 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

} // namespace zel::test
