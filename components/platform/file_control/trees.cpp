// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Trees: removed, copied and moved by the system's tools.
#include <components/platform/file_control.h>

#include <components/platform/base/allocation.h>
#include <components/platform/environment.h>
#include <components/platform/zel_pair_connection.h>
#include <msg/base/text.h>
#include <msg/base/variables.h>

#include <cstdlib>

namespace {

// What these services need for themselves comes from the C library: it is no allocation of the program's, and must not
// decide for it whether the debug heap can still be switched on.

// ---- The system's tools ---------------------------------------------------------------------------------------------

// Where a tool is looked for, the last one along the search path.
struct Tool {
    const char *in_bin;
    const char *in_usr_bin;
    const char *name;
};

constexpr Tool kRemove = {.in_bin = "/bin/rm", .in_usr_bin = "/usr/bin/rm", .name = "rm"};
constexpr Tool kCopy = {.in_bin = "/bin/cp", .in_usr_bin = "/usr/bin/cp", .name = "cp"};
constexpr Tool kMove = {.in_bin = "/bin/mv", .in_usr_bin = "/usr/bin/mv", .name = "mv"};

// Where the tool is, or null. The search path is the caller's: a process with raised rights does not go by it.
const char *locate(const Tool &tool) {
    if (platform_is_executable(tool.in_bin)) {
        return tool.in_bin;
    }
    if (platform_is_executable(tool.in_usr_bin)) {
        return tool.in_usr_bin;
    }
    return zel::has_raised_rights() ? nullptr : tool.name;
}

// The path as the tool must be given it: one that begins with "-" would be read as an option.
struct ToolPath {
    explicit ToolPath(const char *path) : text(path) {
        if (path[0] == '-') {
            const size_t size = strlen(path) + sizeof "./";
            owned = static_cast<char *>(zel::allocate_or_end(size, "platform_spawn"));
            zel::format_text({owned, size}, "./%s", path);
            text = owned;
        }
    }
    ToolPath(const ToolPath &) = delete;
    ToolPath &operator=(const ToolPath &) = delete;
    ~ToolPath() { free(owned); }
    const char *text;
    char *owned = nullptr;
};

int succeeded(int32_t pid) {
    int32_t status;
    return pid != -1 && platform_wait_child(pid, &status) == pid && status == 0 ? 1 : 0;
}

} // namespace

int platform_remove_tree(const char *path) {
    if (path == nullptr) {
        return 0;
    }
    const char *tool = locate(kRemove);
    if (tool == nullptr) {
        return 0;
    }
    const ToolPath target(path);
    return succeeded(platform_spawnl(tool, tool, "-r", "-f", target.text, nullptr));
}

int platform_copy_tree(const char *from, const char *to) {
    if (from == nullptr || to == nullptr) {
        return 0;
    }
    const char *tool = locate(kCopy);
    if (tool == nullptr) {
        return 0;
    }
    const ToolPath source(from);
    const ToolPath target(to);
    return succeeded(platform_spawnl(tool, tool, "-a", source.text, target.text, nullptr));
}

// DELIBERATE: only a directory is moved this way; a single file has platform_rename. Held by the test
// MoveTree.APlainFileIsNotMovedAndNothingRuns.
int platform_move_tree(const char *from, const char *to) {
    if (!platform_is_writable_dir(from) || to == nullptr) {
        return 0;
    }
    const char *tool = locate(kMove);
    if (tool == nullptr) {
        return 0;
    }
    const ToolPath source(from);
    const ToolPath target(to);
    return succeeded(platform_spawnl(tool, tool, "-f", source.text, target.text, nullptr));
}
