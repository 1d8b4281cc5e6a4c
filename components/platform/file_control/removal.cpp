// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Removal of a directory with all that it holds, in this process.
//
// Directories are held by descriptor, and entries are removed relative to them. No path
// is followed twice. A path that was looked up again could lead out of the tree, since
// another process may have exchanged a directory for a link.
#include <components/platform/file_control.h>

#include <components/platform/base/allocation.h>
#include <components/platform/base/descriptor.h>
#include <components/platform/base/path.h>
#include <components/platform/environment.h>
#include <msg/base/errno_kept.h>
#include <msg/base/limits.h>

#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kHold = O_PATH | O_DIRECTORY | O_CLOEXEC;

// The tree that is to be removed: the name of its directory, and the path of the
// directory that holds it.
struct Place {
    const char *parent;
    const char *name;
};

// A directory on the way from the parent of the tree down to the one that is being
// emptied. Levels come from malloc: a tree may be deeper than the stack.
struct Level {
    Level *above;     // null for the parent of the tree
    const char *name; // in the level above
    dev_t device;     // with the inode: identifies the directory
    ino_t inode;
    PlatformFileList lists[2]; // its entries: plain ones, then hidden ones
    size_t list;               // the list that is being removed
    uint32_t entry;            // the next entry in it
};

// The levels of a removal under way. Those that are left are released where the scope
// ends.
struct Walk {
    Walk() { held.fill(-1); }
    Walk(const Walk &) = delete;
    Walk &operator=(const Walk &) = delete;
    ~Walk();
    Level *level = nullptr; // the innermost
    size_t depth = 0;       // how many levels there are
    // The descriptors of the innermost levels. Level n stands at n % kHeldLevels; -1 is a
    // level that was let go.
    std::array<int, zel::kHeldLevels> held;
};
static_assert(zel::kHeldLevels >= 2); // an emptied directory is removed through the one above it

int &descriptor(Walk &walk, size_t depth) {
    return walk.held[depth % walk.held.size()];
}

// Closes the descriptor of a level, if it is held.
void let_go(int &fd) {
    if (fd != -1) {
        zel::close_keeping_errno(fd);
        fd = -1;
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

// Makes the directory of the descriptor the innermost level. The level owns the
// descriptor. Returns false when there is no descriptor, or it has no status.
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

// Lists the entries of a directory, once. A list that cannot be made is empty: an empty
// directory can be removed without being readable. Returns false for a directory that the
// process may not write.
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

// Enters a directory of the innermost level and lists it. The level whose place in
// held it takes is let go first.
bool enter_directory(Walk &walk, const char *name) {
    let_go(descriptor(walk, walk.depth + 1));
    const int fd = openat(descriptor(walk, walk.depth), name, kHold | O_NOFOLLOW);
    return enter_level(walk, fd, name) && list_level(*walk.level, fd);
}

bool is_self_or_parent(std::string_view name) {
    return name == "." || name == "..";
}

// Returns the name of the next entry, or null when there is none.
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

// Removes an entry that is no directory. A link is removed itself, whether or not it
// points to anything. A directory becomes the innermost level, and is removed when it is
// empty. An entry that is gone is no failure.
//
// The system is asked to remove the entry before its status is read: unlinkat follows no
// link and refuses a directory.
bool remove_entry(Walk &walk, const char *name) {
    const int fd = descriptor(walk, walk.depth);
    const int error_before = errno;
    if (unlinkat(fd, name, 0) == 0) {
        return true;
    }
    struct stat status;
    if (fstatat(fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return true;
    }
    if (!S_ISDIR(status.st_mode)) {
        return false;
    }
    errno = error_before;
    return enter_directory(walk, name);
}

// Opens a level that was let go again, as the parent of the level below it. Returns -1
// when that is another directory: the level below was moved meanwhile.
int hold_again(const Level &level, int below) {
    struct stat status;
    int fd = openat(below, "..", kHold | O_NOFOLLOW);
    if (fd != -1 && (fstat(fd, &status) != 0 || status.st_dev != level.device || status.st_ino != level.inode)) {
        let_go(fd);
    }
    return fd;
}

// Removes the innermost level, which has been emptied. The level above it becomes the
// innermost.
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

// Cuts each "/" from the end of the path and splits it before its last component. Returns
// false when there is no component, or it is "." or "..".
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
