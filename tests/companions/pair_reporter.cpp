// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion that tells what it was started with, then ends. Lines of text:
//
//   arg TEXT                  for each argument, its own name first
//   env VALUE                 the variable that carries its end
//   end NUMBER                its descriptor
//   fd NUMBER MODE TARGET     for each open descriptor: r, w or rw, with n after it when it does not block
#include "companion.h"

#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

std::string mode_of(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    const char *const access[] = {"r", "w", "rw"};
    return std::string(access[flags & O_ACCMODE]) + ((flags & O_NONBLOCK) != 0 ? "n" : "");
}

std::string target_of(const std::string &number) {
    char target[4096];
    const ssize_t length = readlink(("/proc/self/fd/" + number).c_str(), target, sizeof target);
    return {target, length < 0 ? 0 : static_cast<size_t>(length)};
}

bool describe_descriptors(std::string &report) {
    DIR *folder = opendir("/proc/self/fd");
    if (folder == nullptr) {
        return false;
    }
    for (const dirent *entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
        const std::string number = entry->d_name;
        const int fd = atoi(entry->d_name);
        if (number[0] != '.' && fd != dirfd(folder)) {
            report += "fd " + number + " " + mode_of(fd) + " " + target_of(number) + "\n";
        }
    }
    closedir(folder);
    return true;
}

} // namespace

int main(int argc, char **argv) {
    std::string report;
    if (!describe_descriptors(report)) {
        return zel::test::kNoReport;
    }
    const char *value = getenv(zel::test::kPairVariable);
    report += std::string("env ") + (value == nullptr ? "" : value) + "\n";
    PairHandle *ph = zel::test::open_or_exit(0, 1);
    report += "end " + std::to_string(platform_pair_rx_fd(ph)) + "\n";
    for (int index = 0; index < argc; ++index) {
        report += std::string("arg ") + argv[index] + "\n";
    }
    fcntl(platform_pair_rx_fd(ph), F_SETFL, 0);
    if (!zel::test::send_whole(ph, report.data(), static_cast<int32_t>(report.size()))) {
        return zel::test::kSendFailed;
    }
    platform_pair_close(ph);
    return zel::test::kServed;
}
