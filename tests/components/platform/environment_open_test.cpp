// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The files that the environment services keep open: what they are opened over, and where their descriptors stand.
#include "environment_support.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <msg/msg.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

constexpr const char *kFileName = "/zel060207140509.log";

struct PlatformKeptFile : testing::Test {
    // Opens the diagnostics file, whose name something has already, and writes a line.
    Outcome open_behind(const std::function<void(const char *)> &plant) const {
        return run_with({{"ZEL_DIAGNOSTICS_PATH", folder.path}}, [&] {
            const StandingClock clock;
            plant((folder.path + kFileName).c_str());
            platform_open_diagnostics(nullptr);
            msg_diag("a line\n");
            printf("%d streams", _msg_get_stream_desc(MSG_DIAG)->count);
        });
    }

    ScratchFolder folder;
    std::string other = folder.path + "/other";
};

constexpr const char *kRefused = "sleep 1\n0 streams";

void check(bool done) {
    if (!done) {
        exit(2);
    }
}

// The descriptor that stands for the file, or -1.
int descriptor_of(const std::string &path) {
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (std::filesystem::read_symlink(entry, ignored) == path) {
            return std::stoi(entry.path().filename().string());
        }
    }
    return -1;
}

std::string state_of(int fd) {
    const int flags = fcntl(fd, F_GETFD);
    const std::string inherited = flags == -1 ? "closed" : (flags & FD_CLOEXEC) != 0 ? "close-on-exec" : "inherited";
    return inherited + (fd > STDERR_FILENO ? " above" : " standard");
}

} // namespace

TEST_F(PlatformKeptFile, ALinkUnderTheDiagnosticsFilesNameIsNotFollowed) {
    write_file(other, "somebody's");
    const Outcome outcome = open_behind([this](const char *name) { check(symlink(other.c_str(), name) == 0); });
    EXPECT_EQ(outcome.out, kRefused);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(read_file(other), "somebody's");
}

TEST_F(PlatformKeptFile, AFifoUnderTheDiagnosticsFilesNameDoesNotHoldItUp) {
    const Outcome outcome = open_behind([](const char *name) {
        alarm(10);
        check(mkfifo(name, 0666) == 0);
    });
    EXPECT_EQ(outcome.out, kRefused);
    EXPECT_EQ(outcome.status, 0);
}

TEST_F(PlatformKeptFile, AFileWithASecondLinkIsNoDiagnosticsFile) {
    write_file(other, "somebody's");
    EXPECT_EQ(open_behind([this](const char *name) { check(link(other.c_str(), name) == 0); }).out, kRefused);
    EXPECT_EQ(read_file(other), "somebody's");
}

// Output that the program writes to its closed stream is lost, as without a diagnostics file.
TEST_F(PlatformKeptFile, OutputThatIsClosedDoesNotLandInTheDiagnosticsFile) {
    run_with({{"ZEL_DIAGNOSTICS_PATH", folder.path}}, [] {
        const StandingClock clock;
        close(STDOUT_FILENO);
        platform_open_diagnostics(nullptr);
        msg_diag("a line\n");
        printf("output\n");
    });
    EXPECT_EQ(read_file(folder.path + kFileName), "a line\n");
}

TEST_F(PlatformKeptFile, ProgramsDoNotInheritTheDiagnosticsFile) {
    const Outcome outcome = run_with({{"ZEL_DIAGNOSTICS_PATH", folder.path}}, [this] {
        const StandingClock clock;
        platform_open_diagnostics(nullptr);
        printf("%s", state_of(descriptor_of(folder.path + kFileName)).c_str());
    });
    EXPECT_EQ(outcome.out, "sleep 1\nclose-on-exec above");
}

TEST_F(PlatformKeptFile, TheDistributionFileIsAboveTheStandardOnesAndNotInherited) {
    std::filesystem::create_directory(folder.path + "/dist");
    const std::string path = folder.path + "/dist/DISTRIBUTION";
    write_file(path, "rel-4.2 final");
    for (const bool without_input : {false, true}) {
        const Outcome outcome = run_with({{"ZEL_DIST", folder.path}}, [&] {
            if (without_input) {
                close(STDIN_FILENO);
            }
            printf("%s ", platform_dist_name());
            printf("%s", state_of(descriptor_of(path)).c_str());
        });
        EXPECT_EQ(outcome.out, "rel-4.2 close-on-exec above");
    }
}

TEST_F(PlatformKeptFile, ADistributionFileThatMustMoveAndCannotGivesNoName) {
    std::filesystem::create_directory(folder.path + "/dist");
    write_file(folder.path + "/dist/DISTRIBUTION", "rel-4.2");
    const auto with = [this](auto &hook, auto replacement) {
        return run_with({{"ZEL_DIST", folder.path}},
                        [&] {
                            close(STDIN_FILENO);
                            const Interposed failing(hook, replacement);
                            printf("%s ", platform_dist_name() == nullptr ? "null" : "a name");
                            printf("%d", descriptor_of(folder.path + "/dist/DISTRIBUTION"));
                        })
            .out;
    };
    EXPECT_EQ(with(hook::fcntl, fail_always(hook::fcntl, EMFILE, -1)), "null -1");
    EXPECT_EQ(with(hook::fdopen, fail_always(hook::fdopen, ENOMEM, nullptr)), "null -1");
}
