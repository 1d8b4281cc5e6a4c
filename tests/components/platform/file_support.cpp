// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of file control share.
#include "file_support.h"

#include <malloc/zel_malloc.h>
#include <support/interpose.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zel::test {

void Files::open_to_all() const {
    ASSERT_EQ(chmod(folder.path.c_str(), 0777), 0);
}

std::string Files::with_text(const std::string &name, const std::string &text) const {
    write_file(path(name), text);
    return path(name);
}

std::optional<std::string> take(char *text) {
    if (text == nullptr) {
        return std::nullopt;
    }
    std::string copy = text;
    zel_free(text);
    return copy;
}

InFolder::InFolder(const std::string &path) {
    char before[PATH_MAX];
    came_from = getcwd(before, sizeof before);
    if (chdir(path.c_str()) != 0) {
        abort(); // relative names would be those of another folder, which a test might remove
    }
}

InFolder::~InFolder() {
    EXPECT_EQ(chdir(came_from.c_str()), 0);
}

void set_times(const std::string &path, int64_t access, int64_t modify) {
    const timespec times[2] = {{.tv_sec = access, .tv_nsec = 0}, {.tv_sec = modify, .tv_nsec = 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

void make_sparse(const std::string &path, int64_t size) {
    write_file(path, "");
    ASSERT_EQ(truncate(path.c_str(), size), 0);
}

std::string path_of_other_group() {
    struct stat status;
    for (const char *path : {"/etc/shadow", "/dev/tty", "/var/mail", "/var/local"}) {
        if (stat(path, &status) == 0 && status.st_uid != status.st_gid) {
            return path;
        }
    }
    return "no file whose owner and group have different numbers";
}

int blocks_left_by(const std::function<void()> &body) {
    int blocks = 0;
    const auto allocate = hook::malloc.replacement;
    const Interposed allocating(hook::malloc, [&blocks, &allocate](size_t size) {
        void *block = allocate ? allocate(size) : hook::malloc.real(size);
        blocks += block != nullptr ? 1 : 0;
        return block;
    });
    const Interposed releasing(hook::free, [&blocks](void *pointer) {
        blocks -= pointer != nullptr ? 1 : 0;
        hook::free.real(pointer);
    });
    body();
    return blocks;
}

bool exchange(const std::string &one, const std::string &other) {
    return renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
}

Exchanger::Exchanger(const std::string &one, const std::string &other) : pid(fork()) {
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            exchange(one, other);
        }
    }
}

Exchanger::~Exchanger() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

int attack_rounds() {
    const char *asked = getenv("ZEL_ATTACK_ROUNDS");
    return asked == nullptr ? 250 : atoi(asked);
}

int forks_during(const std::function<void()> &body) {
    int forks = 0;
    const Interposed counting(hook::fork, [&forks] {
        ++forks;
        return hook::fork.real();
    });
    body();
    return forks;
}

} // namespace zel::test
