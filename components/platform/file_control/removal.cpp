// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Removal of a directory with all that it holds, in this process.
//
// Directories are held by descriptor, and entries are removed relative to them. No path is followed twice: a name that
// somebody exchanges for a link meanwhile leads nowhere.
#include <components/platform/file_control.h>

#include <components/platform/base/allocation.h>
#include <components/platform/base/descriptor.h>
#include <components/platform/base/path.h>
#include <components/platform/environment.h>
#include <msg/base/limits.h>

#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kHold = O_PATH | O_DIRECTORY | O_CLOEXEC;

// The directory that is to be removed: its name, and the path of the directory that holds it.
struct Place {
    const char *parent;
    const char *name;
};

// A directory on the way from the parent of the tree down to the one that is being emptied. Levels stand on the C
// library's heap: a tree may be deeper than the stack.
struct Level {
    Level *above;     // null for the parent of the tree
    const char *name; // in the level above
    dev_t device;     // with the inode: which directory it is
    ino_t inode;
    PlatformFileList lists[2]; // what it holds: plain entries, then hidden ones
    size_t list;               // the list that is being removed
    uint32_t entry;            // the next entry in it
};

// The levels of a removal under way. What is left of them is released where the scope ends.
struct Walk {
    Walk() { held.fill(-1); }
    Walk(const Walk &) = delete;
    Walk &operator=(const Walk &) = delete;
    ~Walk();
    Level *level = nullptr; // the innermost
    size_t depth = 0;       // how many levels there are
    // The descriptors of the innermost levels, that of the n-th at n % kHeldLevels; -1 for one that was let go.
    std::array<int, zel::kHeldLevels> held;
};
static_assert(zel::kHeldLevels >= 2); // an emptied directory is removed through the one above it

int &descriptor(Walk &walk, size_t depth) {
    return walk.held[depth % walk.held.size()];
}

void let_go(int &fd) {
    if (fd != -1) {
        fd = zel::close_keeping_errno(fd);
    }
}

void leave_level(Walk &walk) {
    const zel::ErrnoKept kept;
    Level *level = walk.level;
    let_go(descriptor(walk, walk.depth));
    walk.level = level->above;
    --walk.depth;
    for (PlatformFileList &list : level->lists) {
        platform_glob_free(&list);
    }
    free(level);
}

Walk::~Walk() {
    while (level != nullptr) {
        leave_level(*this);
    }
}

// Makes the directory behind the descriptor the innermost level, which owns the descriptor from now on.
bool enter_level(Walk &walk, int fd, const char *name) {
    struct stat status;
    if (fd == -1 || fstat(fd, &status) != 0) {
        let_go(fd);
        return false;
    }
    auto *level = static_cast<Level *>(zel::allocate_or_end(sizeof(Level), "platform_remove_dir"));
    *level = {.above = walk.level,
              .name = name,
              .device = status.st_dev,
              .inode = status.st_ino,
              .lists = {},
              .list = 0,
              .entry = 0};
    walk.level = level;
    ++walk.depth;
    descriptor(walk, walk.depth) = fd;
    return true;
}

// Lists what the directory holds, once. A list that cannot be had is an empty one: an empty directory need not be
// readable.
bool list_level(Level &level, int fd) {
    std::array<char, sizeof "/proc/self/fd/2147483647"> path;
    zel::format_text(path, "/proc/self/fd/%d", fd);
    if (!platform_is_writable_dir(path.data())) {
        return false;
    }
    platform_glob(path.data(), "*", &level.lists[0]);
    platform_glob(path.data(), ".*", &level.lists[1]);
    return true;
}

// The level that has the place of the new one is let go first.
bool enter_directory(Walk &walk, const char *name) {
    let_go(descriptor(walk, walk.depth + 1));
    const int fd = openat(descriptor(walk, walk.depth), name, kHold | O_NOFOLLOW);
    return enter_level(walk, fd, name) && list_level(*walk.level, fd);
}

bool is_self_or_parent(std::string_view name) {
    return name == "." || name == "..";
}

// The name of the next entry, or null when there is none.
const char *next_name(Level &level) {
    for (; level.list < std::size(level.lists); ++level.list, level.entry = 0) {
        const PlatformFileList &list = level.lists[level.list];
        while (level.entry < list.count) {
            const char *name = zel::last_component(list.paths[level.entry++]).data();
            if (!is_self_or_parent(name)) {
                return name;
            }
        }
    }
    return nullptr;
}

// A link is an entry of its own, whatever it points to; also one that points nowhere. A directory becomes the innermost
// level, and is removed when it has been emptied.
bool remove_entry(Walk &walk, const char *name) {
    const int fd = descriptor(walk, walk.depth);
    struct stat status;
    if (fstatat(fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return true;
    }
    return S_ISDIR(status.st_mode) ? enter_directory(walk, name) : unlinkat(fd, name, 0) == 0;
}

// Reaches a level that was let go from the one below it. One that was moved meanwhile has another one above it.
int hold_again(const Level &level, int below) {
    struct stat status;
    int fd = openat(below, "..", kHold | O_NOFOLLOW);
    if (fd != -1 && (fstat(fd, &status) != 0 || status.st_dev != level.device || status.st_ino != level.inode)) {
        let_go(fd);
    }
    return fd;
}

// Removes the innermost level, which has been emptied, and goes on in the one above it.
bool remove_level(Walk &walk) {
    int &above = descriptor(walk, walk.depth - 1);
    if (above == -1) {
        above = hold_again(*walk.level->above, descriptor(walk, walk.depth));
    }
    if (above == -1 || unlinkat(above, walk.level->name, AT_REMOVEDIR) != 0) {
        return false;
    }
    leave_level(walk);
    return true;
}

bool remove_tree(const Place &place) {
    Walk walk;
    if (!enter_level(walk, openat(AT_FDCWD, place.parent, kHold), "") || !enter_directory(walk, place.name)) {
        return false;
    }
    while (walk.depth > 1) {
        const char *name = next_name(*walk.level);
        if (name == nullptr ? !remove_level(walk) : !remove_entry(walk, name)) {
            return false;
        }
    }
    return true;
}

// Takes each "/" from the end of the path and splits it before its last component. Returns false when that is no name
// of an entry: when there is none, or it is "." or "..".
bool split(zel::PathBuffer &path, Place &place) {
    size_t length = strlen(path.data());
    while (length > 0 && path[length - 1] == '/') {
        path[--length] = '\0';
    }
    char *slash = strrchr(path.data(), '/');
    if (slash == nullptr) {
        place = {.parent = ".", .name = path.data()};
    } else {
        place = {.parent = slash == path.data() ? "/" : path.data(), .name = slash + 1};
        *slash = '\0';
    }
    return *place.name != '\0' && !is_self_or_parent(place.name);
}

} // namespace

int platform_remove_dir(const char *path) {
    zel::PathBuffer whole;
    Place place;
    if (path == nullptr || !zel::format_text(whole, "%s", path) || !split(whole, place)) {
        return 0;
    }
    return platform_is_writable_dir(path) && remove_tree(place) ? 1 : 0;
}
