// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of file control share.
#ifndef ZEL_TESTS_COMPONENTS_PLATFORM_FILE_SUPPORT_H
#define ZEL_TESTS_COMPONENTS_PLATFORM_FILE_SUPPORT_H

#include <support/files.h>

#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/types.h>

namespace zel::test {

// Tests that work in a folder of their own.
struct Files : testing::Test {
    std::string path(const std::string &name) const { return folder.path + "/" + name; }
    // A new file of that name with that text. Returns its path.
    std::string with_text(const std::string &name, const std::string &text = "") const;
    // Lets everybody in, so that nobody may enter too.
    void open_to_all() const;
    ScratchFolder folder;
};

// A text that a service allocated, taken over and released; none for null.
std::optional<std::string> take(char *text);

// Stays in a folder to the end of its scope, and comes back.
struct InFolder {
    explicit InFolder(const std::string &path);
    ~InFolder();
    InFolder(const InFolder &) = delete;
    InFolder &operator=(const InFolder &) = delete;
    std::string came_from;
};

constexpr int64_t kIn2050 = 2524608000; // does not fit 31 bits

// Sets a file's times, in seconds.
void set_times(const std::string &path, int64_t access, int64_t modify);

// Makes a file of this size without storing it.
void make_sparse(const std::string &path, int64_t size);

// A file of the system whose owner and group have different numbers.
std::string path_of_other_group();

// The blocks that are allocated and not released while the body runs.
int blocks_left_by(const std::function<void()> &body);

// Exchanges two names. Returns whether that was done.
bool exchange(const std::string &one, const std::string &other);

// Another process that exchanges two names over and over, until the scope ends. It ends with its parent too.
struct Exchanger {
    Exchanger(const std::string &one, const std::string &other);
    ~Exchanger();
    Exchanger(const Exchanger &) = delete;
    Exchanger &operator=(const Exchanger &) = delete;
    const pid_t pid;
};

// How often a service runs against the exchanges. The variable ZEL_ATTACK_ROUNDS asks for more.
int attack_rounds();

// How often the body forks.
int forks_during(const std::function<void()> &body);

} // namespace zel::test

#endif
