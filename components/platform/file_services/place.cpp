// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Finding the place that a path leads to.
#include <components/platform/file_services/place.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/base/open_file.h>
#include <components/platform/file_services/path_copy.h>

#include <cerrno>
#include <unistd.h>

namespace zel {

namespace {

constexpr int kMostLinks = 40; // as many as the kernel follows
constexpr mode_t kSharedByAll = S_ISVTX | S_IWOTH;

enum class Sight { failed, settled, link };

bool fail(int error) {
    errno = error;
    return false;
}

void close_folder(const Place &place) {
    if (place.folder != AT_FDCWD) {
        close_keeping_errno(place.folder);
    }
}

// Goes on to a directory. A relative path starts at the directory of the link that it was
// read from. The directory stays open while the program's own function runs, so that it
// may not stand in the place of a standard descriptor.
bool enter_folder(Place &place, const char *path) {
    const int folder = take_above_standard(openat(place.folder, path, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder == -1) {
        return false;
    }
    close_folder(place);
    place.folder = folder;
    return true;
}

bool is_name_of_directory(std::string_view name) {
    return name.empty() || name == "." || name == "..";
}

// Takes a path apart: enters its directory, and keeps its last component. The path is
// changed.
bool take_apart(Place &place, PathBuffer &path) {
    const std::string_view name = last_component(path.data());
    if (path.front() == '\0') {
        return fail(ENOENT);
    }
    if (is_name_of_directory(name)) {
        return fail(EISDIR);
    }
    if (name.size() >= place.name.size()) {
        return fail(ENAMETOOLONG);
    }
    place.name = {};
    copy_part(place.name, name);
    path[static_cast<size_t>(name.data() - path.data())] = '\0';
    return enter_folder(place, path.front() == '\0' ? "." : path.data());
}

// Whether a link may be followed. In a directory like /tmp anybody can put a link to a
// file of somebody else, and wait for a program that writes there.
bool is_trusted_link(const Place &place) {
    struct stat folder;
    if (fstat(place.folder, &folder) != 0) {
        return false;
    }
    const bool is_shared = (folder.st_mode & kSharedByAll) == kSharedByAll;
    const uid_t owner = place.status.st_uid;
    return !is_shared || owner == geteuid() || owner == folder.st_uid || fail(EACCES);
}

Sight read_link(const Place &place, int link, PathBuffer &path) {
    const ssize_t length = is_trusted_link(place) ? readlinkat(link, "", path.data(), kPathLength) : -1;
    if (length == -1) {
        return Sight::failed;
    }
    path[static_cast<size_t>(length)] = '\0';
    return Sight::link;
}

// Only a regular file is replaced.
bool is_replaceable(const struct stat &status) {
    return S_ISREG(status.st_mode) || fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
}

// Looks at what stands at the place. A link is opened itself: its owner and its text are
// those of the same link, even if another takes its name in between. The text is put into
// path.
Sight look_at(Place &place, PathBuffer &path) {
    const OpenFile found(openat(place.folder, place.name.data(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    place.is_taken = found.fd != -1;
    if (found.fd == -1) {
        return errno == ENOENT ? Sight::settled : Sight::failed;
    }
    if (fstat(found.fd, &place.status) != 0) {
        return Sight::failed;
    }
    if (S_ISLNK(place.status.st_mode)) {
        return read_link(place, found.fd, path);
    }
    return is_replaceable(place.status) ? Sight::settled : Sight::failed;
}

} // namespace

Place::~Place() {
    close_folder(*this);
}

bool find_place(const char *path, Place &place) {
    PathBuffer rest;
    if (!copy_path(rest, path)) {
        return false;
    }
    for (int links = 0; links <= kMostLinks; ++links) {
        const Sight sight = take_apart(place, rest) ? look_at(place, rest) : Sight::failed;
        if (sight != Sight::link) {
            return sight == Sight::settled;
        }
    }
    return fail(ELOOP);
}

} // namespace zel
