// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Trees: removed, copied and moved by tools of the system.
//
// The storage of these services comes from malloc: it is no allocation of the program,
// and must not end the time in which the debug heap can be switched on.
#include <components/platform/file_control.h>

#include <components/platform/base/allocation.h>
#include <components/platform/environment.h>
#include <components/platform/zel_pair_connection.h>
#include <msg/base/text.h>
#include <msg/base/variables.h>

#include <cstdlib>

namespace {

// The places of a tool, in the order in which it is looked for. The name is searched
// along PATH.
struct Tool {
    const char *in_bin;
    const char *in_usr_bin;
    const char *name;
};

constexpr Tool kRemove = {.in_bin = "/bin/rm", .in_usr_bin = "/usr/bin/rm", .name = "rm"};
constexpr Tool kCopy = {.in_bin = "/bin/cp", .in_usr_bin = "/usr/bin/cp", .name = "cp"};
constexpr Tool kMove = {.in_bin = "/bin/mv", .in_usr_bin = "/usr/bin/mv", .name = "mv"};

// Returns where the tool is, or null. PATH belongs to the caller: a process with raised
// rights does not search it.
const char *locate(const Tool &tool) {
    if (platform_is_executable(tool.in_bin)) {
        return tool.in_bin;
    }
    if (platform_is_executable(tool.in_usr_bin)) {
        return tool.in_usr_bin;
    }
    return zel::has_raised_rights() ? nullptr : tool.name;
}

// A path as an argument of a tool. One that begins with "-" gets "./" in front, or it
// would be read as an option.
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

// Waits for the tool. Returns 1 when it ended with status 0.
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

// DELIBERATE: only a directory is moved. Test:
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
