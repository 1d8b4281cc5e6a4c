// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The standard descriptors of a companion, in every form in which a parent can give them.
#include "pair_support.h"

#include <array>
#include <fcntl.h>
#include <unistd.h>

using namespace zel::test;
using Lines = std::vector<std::string>;

namespace {

// Descriptors on three files of its own, closed where the scope ends.
struct ThreeFiles {
    ThreeFiles() {
        for (int index = 0; index < 3; ++index) {
            const std::string path = folder.path + "/" + std::to_string(index);
            write_file(path, "");
            fds[index] = open(path.c_str(), index == 0 ? O_RDONLY | O_CLOEXEC : O_WRONLY | O_CLOEXEC);
        }
    }
    ~ThreeFiles() {
        for (const int fd : fds) {
            close(fd);
        }
    }
    std::string said(int index) const { return (index == 0 ? "r " : "w ") + target_of(fds[index]); }

    ScratchFolder folder;
    int fds[3];
};

Report report_of(const int *stdio_fds) {
    PairHandle *ph = start({.companion = "pair_reporter", .stdio_fds = stdio_fds});
    Report report = read_report(ph);
    EXPECT_EQ(finish(ph), kServed);
    return report;
}

// The steps of a child up to the one that closes the parent's end.
Lines redirection_steps(const int *stdio_fds) {
    Lines steps;
    PairHandle *ph = nullptr;
    {
        const RecordedOpen recorded;
        ph = start({.companion = "pair_reporter", .stdio_fds = stdio_fds});
        wait_until_ended(ph->companion_pid);
        steps = recorded.child_steps();
    }
    EXPECT_EQ(finish(ph), kServed);
    steps.erase(std::find(steps.begin(), steps.end(), "close end0"), steps.end());
    return steps;
}

std::string described(const Report &report, int fd) {
    const auto found = report.descriptors.find(fd);
    return found == report.descriptors.end() ? "closed" : found->second;
}

std::string standards_of(const Report &report) {
    return described(report, 0) + " | " + described(report, 1) + " | " + described(report, 2);
}

// Where no descriptor is inherited beyond the standard ones and the pair's end.
size_t others_of(const Report &report) {
    size_t others = 0;
    for (const auto &[fd, description] : report.descriptors) {
        others += fd > 2 && fd != report.end && (fcntl(fd, F_GETFD) == -1 || (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);
    }
    return others;
}

constexpr int kNextFree = -1000; // in a list of descriptors: the lowest closed number above the standard ones

// The list with the numbers that this process has in its places.
std::array<int, 3> with_next_free(const int *stdio_fds) {
    std::array<int, 3> given;
    const int next_free = fcntl(0, F_DUPFD, 3);
    close(next_free);
    for (size_t place = 0; place < given.size(); ++place) {
        given[place] = stdio_fds[place] == kNextFree ? next_free : stdio_fds[place];
    }
    return given;
}

// A process whose standard descriptors are three files, some closed after that (bit n of the mask: descriptor n), runs
// a reporter. Prints what the companion has, and how the process fared.
std::string report_with_closed(unsigned closed, const int *stdio_fds) {
    const ThreeFiles files;
    int out[2];
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    const Outcome outcome = run_in_child([&] {
        const int said = fcntl(out[1], F_DUPFD_CLOEXEC, 10);
        for (int fd = 0; fd < 3; ++fd) {
            dup2(files.fds[fd], fd);
        }
        const std::array<int, 3> given = with_next_free(stdio_fds == nullptr ? files.fds : stdio_fds);
        for (int fd = 0; fd < 3; ++fd) {
            if ((closed >> fd & 1) != 0) {
                close(fd);
            }
        }
        PairHandle *ph =
            start({.companion = "pair_reporter", .stdio_fds = stdio_fds == nullptr ? nullptr : given.data()});
        const bool above = ph->rx_fd > 2;
        const Report report = read_report(ph);
        dprintf(said, "%s%s%s", standards_of(report).c_str(), above && report.end > 2 ? "" : " socket below 3",
                others_of(report) == 0 ? "" : " others");
        _exit(finish(ph));
    });
    EXPECT_EQ(outcome.status, kServed);
    close(out[1]);
    char text[4096];
    const ssize_t length = read(out[0], text, sizeof text);
    close(out[0]);
    std::string result(text, length < 0 ? 0 : static_cast<size_t>(length));
    for (size_t at = result.find(files.folder.path); at != std::string::npos; at = result.find(files.folder.path)) {
        result.replace(at, files.folder.path.size(), "FILE");
    }
    return result;
}

constexpr const char *kAllNull = "r /dev/null | w /dev/null | w /dev/null";

} // namespace

TEST(PairStandardDescriptors, NoneGivenMeansTheNullDevice) {
    const Report report = report_of(nullptr);
    EXPECT_EQ(standards_of(report), kAllNull);
    EXPECT_EQ(others_of(report), 0u);
}

TEST(PairStandardDescriptors, TheNullDeviceIsOpenedOnceToReadAndOnceToWrite) {
    EXPECT_EQ(redirection_steps(nullptr),
              (Lines{"open /dev/null r", "open /dev/null w", "dup2 null-r 0", "dup2 null-w 1", "dup2 null-w 2"}));
}

TEST(PairStandardDescriptors, TheParentsOwnAreNeitherDuplicatedNorClosed) {
    const int given[] = {0, 1, 2};
    EXPECT_EQ(redirection_steps(given), Lines{});
}

TEST(PairStandardDescriptors, TheParentsOwnAreInherited) {
    const int given[] = {0, 1, 2};
    const Report report = report_of(given);
    for (int fd = 0; fd < 3; ++fd) {
        const std::string description = described(report, fd);
        EXPECT_EQ(description.substr(description.find(' ') + 1), target_of(fd));
    }
}

TEST(PairStandardDescriptors, ThreeFilesBecomeInputOutputAndErrors) {
    const ThreeFiles files;
    const Report report = report_of(files.fds);
    EXPECT_EQ(standards_of(report), files.said(0) + " | " + files.said(1) + " | " + files.said(2));
    EXPECT_EQ(others_of(report), 0u);
}

TEST(PairStandardDescriptors, EachIsDuplicatedAndThenClosed) {
    const ThreeFiles files;
    Lines expected;
    for (int place = 0; place < 3; ++place) {
        const std::string fd = std::to_string(files.fds[place]);
        expected.push_back("dup2 " + fd + " " + std::to_string(place));
        expected.push_back("close " + fd);
    }
    EXPECT_EQ(redirection_steps(files.fds), expected);
}

TEST(PairStandardDescriptors, TheParentsDescriptorsStayOpen) {
    const ThreeFiles files;
    const std::set<int> before = open_descriptors();
    report_of(files.fds);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(PairStandardDescriptors, OnlyThoseThatDifferAreMoved) {
    const ThreeFiles files;
    const int given[] = {0, files.fds[1], 2};
    const std::string fd = std::to_string(files.fds[1]);
    EXPECT_EQ(redirection_steps(given), (Lines{"dup2 " + fd + " 1", "close " + fd}));
}

TEST(PairStandardDescriptors, OneFileForOutputAndErrorsIsClosedAfterItsLastUse) {
    const ThreeFiles files;
    const int given[] = {files.fds[0], files.fds[1], files.fds[1]};
    const Report report = report_of(given);
    EXPECT_EQ(standards_of(report), files.said(0) + " | " + files.said(1) + " | " + files.said(1));
    EXPECT_EQ(others_of(report), 0u);
    const std::string in = std::to_string(files.fds[0]);
    const std::string out = std::to_string(files.fds[1]);
    EXPECT_EQ(redirection_steps(given),
              (Lines{"dup2 " + in + " 0", "close " + in, "dup2 " + out + " 1", "dup2 " + out + " 2", "close " + out}));
}

TEST(PairStandardDescriptors, OneDescriptorMayServeForAllThree) {
    const ThreeFiles files;
    const int given[] = {files.fds[2], files.fds[2], files.fds[2]};
    const Report report = report_of(given);
    EXPECT_EQ(standards_of(report), files.said(2) + " | " + files.said(2) + " | " + files.said(2));
    EXPECT_EQ(others_of(report), 0u);
}

TEST(PairStandardDescriptors, ErrorsMayGoWhereTheOutputGoes) {
    const int given[] = {0, 1, 1};
    EXPECT_EQ(report_with_closed(0, given), "r FILE/0 | w FILE/1 | w FILE/1");
}

TEST(PairStandardDescriptors, OutputMayGoWhereTheErrorsGo) {
    const int given[] = {0, 2, 2};
    EXPECT_EQ(report_with_closed(0, given), "r FILE/0 | w FILE/2 | w FILE/2");
}

TEST(PairStandardDescriptors, OutputAndErrorsMayBeSwapped) {
    const int given[] = {0, 2, 1};
    EXPECT_EQ(report_with_closed(0, given), "r FILE/0 | w FILE/2 | w FILE/1");
}

TEST(PairStandardDescriptors, AllThreeMayBeRotated) {
    const int given[] = {2, 0, 1};
    EXPECT_EQ(report_with_closed(0, given), "w FILE/2 | r FILE/0 | w FILE/1");
}

TEST(PairStandardDescriptors, ACompanionOfAParentWithClosedOnesHasTheNullDevice) {
    for (unsigned closed = 1; closed < 8; ++closed) {
        SCOPED_TRACE(closed);
        EXPECT_EQ(report_with_closed(closed, nullptr), kAllNull);
    }
}

TEST(PairStandardDescriptors, WhatIsClosedInTheParentStaysClosedInTheCompanion) {
    const int given[] = {0, 1, 2};
    const std::string files[] = {"r FILE/0", "w FILE/1", "w FILE/2"};
    for (unsigned closed = 1; closed < 8; ++closed) {
        SCOPED_TRACE(closed);
        std::string expected;
        for (unsigned fd = 0; fd < 3; ++fd) {
            expected += (fd == 0 ? "" : " | ") + ((closed >> fd & 1) != 0 ? std::string("closed") : files[fd]);
        }
        EXPECT_EQ(report_with_closed(closed, given), expected);
    }
}

TEST(PairStandardDescriptors, AParentWithClosedOnesCanGiveTheCompanionFiles) {
    const ThreeFiles files;
    const std::string expected = files.said(0) + " | " + files.said(1) + " | " + files.said(2);
    for (unsigned closed = 1; closed < 8; ++closed) {
        SCOPED_TRACE(closed);
        EXPECT_EQ(report_with_closed(closed, files.fds), expected);
    }
}

TEST(PairStandardDescriptors, AClosedEntryLeavesTheParentsOwn) {
    const int for_input[] = {kNextFree, 2, 1};
    EXPECT_EQ(report_with_closed(0, for_input), "r FILE/0 | w FILE/2 | w FILE/1") << "a copy takes the closed number";
    const int for_errors[] = {1, 0, kNextFree};
    EXPECT_EQ(report_with_closed(0, for_errors), "w FILE/1 | r FILE/0 | w FILE/2");
    const int negative[] = {-1, 2, -7};
    EXPECT_EQ(report_with_closed(0, negative), "r FILE/0 | w FILE/2 | w FILE/2");
}

TEST(PairStandardDescriptors, AClosedEntryIsNotTheSocketThatTakesItsNumber) {
    const int for_all[] = {kNextFree, kNextFree, kNextFree};
    EXPECT_EQ(report_with_closed(0, for_all), "r FILE/0 | w FILE/1 | w FILE/2");
    const int standard[] = {1, 1, 0};
    EXPECT_EQ(report_with_closed(1, standard), "w FILE/1 | w FILE/1 | w FILE/2");
}

TEST(PairStandardDescriptors, AskingWhichEntriesAreOpenLeavesErrno) {
    const int closed[] = {-1, -1, -1};
    int seen = 0;
    PairHandle *ph = nullptr;
    {
        const Interposed looking(hook::socketpair, [&seen](int family, int type, int protocol, int *ends) {
            seen = errno;
            return hook::socketpair.real(family, type, protocol, ends);
        });
        errno = E2BIG;
        ph = start({.stdio_fds = closed});
    }
    EXPECT_EQ(seen, E2BIG);
    EXPECT_EQ(finish(ph), kServed);
}
