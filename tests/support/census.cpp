// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The open descriptors and the children of this process.
#include <support/census.h>

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <sys/wait.h>

namespace zel::test {

std::set<int> open_descriptors() {
    std::set<int> descriptors;
    DIR *folder = opendir("/proc/self/fd");
    for (const dirent *entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
        if (entry->d_name[0] != '.') {
            descriptors.insert(atoi(entry->d_name));
        }
    }
    descriptors.erase(dirfd(folder));
    closedir(folder);
    return descriptors;
}

bool has_children() {
    siginfo_t info = {};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

} // namespace zel::test
