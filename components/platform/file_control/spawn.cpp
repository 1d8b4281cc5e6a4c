// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Starting a child for a command.
#include <components/platform/file_control.h>

#include <components/platform/base/allocation.h>
#include <components/platform/base/child_start.h>
#include <components/platform/zel_pair_connection.h>

#include <array>
#include <cstdarg>
#include <unistd.h>

namespace {

// The status of a child whose program cannot be executed, as shells use it.
constexpr int kCannotExecute = 127;

// Runs in the child. A failure ends it without the exit handlers, which belong to its
// parent.
[[noreturn]] void become_command(const char *file, char *const argv[], const zel::Standards *standards) {
    if (standards == nullptr || zel::redirect_standard(*standards)) {
        execvp(file, argv);
    }
    _exit(kCannotExecute);
}

// Counts the texts of a list up to its null. The list is left where it is.
size_t count_texts(const char *first, va_list rest) {
    va_list texts;
    va_copy(texts, rest);
    size_t count = 0;
    for (const char *text = first; text != nullptr; text = va_arg(texts, const char *)) {
        ++count;
    }
    va_end(texts);
    return count;
}

// Starts a program with the arguments of a list. The child has its own copy of the vector.
int32_t spawn_list(const char *file, const int *fds, const char *arg0, va_list rest) {
    const size_t size = (count_texts(arg0, rest) + 1) * sizeof(char *);
    auto **argv = static_cast<char **>(zel::allocate_or_end(size, "platform_spawnl"));
    size_t count = 0;
    for (const char *text = arg0; text != nullptr; text = va_arg(rest, const char *)) {
        argv[count++] = const_cast<char *>(text);
    }
    argv[count] = nullptr;
    const int32_t pid = platform_spawn(file, argv, fds);
    free(argv);
    return pid;
}

} // namespace

int32_t platform_spawn(const char *file, char *const argv[], const int *fds) {
    const zel::Standards standards = fds != nullptr ? zel::choose_standards(fds) : zel::Standards{};
    const int32_t pid = zel::fork_flushed();
    if (pid == 0) {
        become_command(file, argv, fds != nullptr ? &standards : nullptr);
    }
    return pid;
}

int32_t platform_spawnl(const char *file, const char *arg0, ...) {
    va_list rest;
    va_start(rest, arg0);
    const int32_t pid = spawn_list(file, nullptr, arg0, rest);
    va_end(rest);
    return pid;
}

int32_t platform_spawnl_quiet(const char *file, const char *arg0, ...) {
    // The null device is open once in a process: each caller takes and returns a reference.
    const int null_fd = platform_null_fd_open();
    if (null_fd == -1) {
        return -1; // a negative entry would mean the parent's own descriptors
    }
    const std::array<int, 3> fds = {null_fd, null_fd, null_fd};
    va_list rest;
    va_start(rest, arg0);
    const int32_t pid = spawn_list(file, fds.data(), arg0, rest);
    va_end(rest);
    platform_null_fd_close(null_fd);
    return pid;
}
