// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The working directory, resolved and relative paths, and the parts of a path.
#include <components/platform/file_control.h>

#include <components/platform/base/path.h>
#include <components/platform/environment.h>
#include <components/platform/file_control/caller_storage.h>
#include <components/platform/file_control/relative_path.h>
#include <msg/base/errno_kept.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <unistd.h>

namespace {

// The most bytes that the name of the current directory takes, with its NUL.
constexpr size_t kDirectorySize = 4096;
static_assert(kDirectorySize <= zel::kPathBufferSize);
static_assert(PATH_MAX <= zel::kPathBufferSize, "realpath writes up to PATH_MAX bytes");

// The result of platform_resolve_static. Every call overwrites it.
constinit zel::PathBuffer resolved = {};

// The buffer of a result: the caller's, or an allocated one.
struct PathResult {
    char *buffer;
    bool allocated;
};

// Allocates a buffer where the caller gives none. Its address is null when a failure
// handler let the lack of memory pass.
PathResult buffer_for(char *buf, int32_t line) {
    char *buffer = buf == nullptr ? zel::file_control::allocate_chars(zel::kPathBufferSize, line) : buf;
    return {.buffer = buffer, .allocated = buf == nullptr};
}

// Returns the buffer when it is filled. Otherwise an allocated one is released, and the
// result is null.
char *finish(const PathResult &result, bool filled) {
    if (filled) {
        return result.buffer;
    }
    if (result.allocated) {
        const zel::ErrnoKept kept;
        zel_free(result.buffer);
    }
    return nullptr;
}

// Copies a part of a path into the caller's buffer, or into one that is allocated for
// precisely that part. The path may stand in the caller's buffer.
char *copy_of(std::string_view part, char *buf, int32_t line) {
    char *target = buf == nullptr ? zel::file_control::allocate_copy(part.size() + 1, line) : buf;
    if (target == nullptr) {
        return nullptr; // as a failure handler decided
    }
    memmove(target, part.data(), part.size());
    target[part.size()] = '\0';
    return target;
}

// Returns an absolute path as it is. Any other is resolved into the buffer; null when
// that fails.
const char *absolute(const char *path, zel::PathBuffer &buffer) {
    return platform_is_absolute(path) ? path : platform_resolve(path, buffer.data());
}

// Resolves without leaving the current directory, which has no name that leads back.
// DELIBERATE: the report says platform_set_cwd though no directory is changed. Test:
// ResolveEdges.FromADirectoryThatWasRemovedTheProcessGoesNowhere.
char *resolve_without_way_back(const char *path, char *buf) {
    const int reason = errno;
    platform_perror("platform_set_cwd");
    if (platform_is_absolute(path)) {
        return platform_resolve(path, buf);
    }
    errno = reason;
    return nullptr;
}

} // namespace

char *platform_get_cwd(char *buf, size_t size) {
    const PathResult result = buffer_for(buf, __LINE__);
    if (result.buffer == nullptr) {
        return nullptr; // as a failure handler decided
    }
    return finish(result, getcwd(result.buffer, result.allocated ? kDirectorySize : size) != nullptr);
}

int platform_set_cwd(const char *path) {
    if (path != nullptr && chdir(path) == 0) {
        return 1;
    }
    errno = path == nullptr ? EFAULT : errno;
    platform_perror("platform_set_cwd");
    return 0;
}

char *platform_resolve(const char *path, char *buf) {
    const PathResult result = buffer_for(buf, __LINE__);
    // The path may stand in the caller's buffer.
    zel::PathBuffer whole;
    const bool found = result.buffer != nullptr && realpath(path, whole.data()) != nullptr;
    if (found) {
        memcpy(result.buffer, whole.data(), strlen(whole.data()) + 1);
    }
    return finish(result, found);
}

// A change that fails has been reported by platform_set_cwd, and the work goes on.
char *platform_resolve_in(const char *dir, const char *path, char *buf) {
    zel::PathBuffer before;
    if (platform_get_cwd(before.data(), kDirectorySize) == nullptr) {
        return resolve_without_way_back(path, buf);
    }
    platform_set_cwd(dir);
    char *result = platform_resolve(path, buf);
    const zel::ErrnoKept kept;
    platform_set_cwd(before.data());
    return result;
}

const char *platform_resolve_static(const char *path) {
    const char *result = platform_resolve(path, resolved.data());
    return result == nullptr ? path : result;
}

int platform_is_absolute(const char *path) {
    return path != nullptr && path[0] == '/' ? 1 : 0;
}

char *platform_relative_path(const char *base, const char *target, char *buf) {
    zel::PathBuffer base_buffer;
    zel::PathBuffer target_buffer;
    const char *from = absolute(base, base_buffer);
    const char *to = from == nullptr ? nullptr : absolute(target, target_buffer);
    if (to == nullptr) {
        return nullptr;
    }
    const PathResult result = buffer_for(buf, __LINE__);
    if (result.buffer == nullptr) {
        return nullptr; // as a failure handler decided
    }
    const bool fits = zel::compose_relative_path(from, to, {result.buffer, zel::kPathBufferSize});
    if (!fits) {
        errno = ENAMETOOLONG;
    }
    return finish(result, fits);
}

char *platform_dirname(const char *path, char *buf) {
    if (path == nullptr) {
        return nullptr;
    }
    const char *slash = strrchr(path, '/');
    return copy_of({path, slash == nullptr ? 0 : static_cast<size_t>(slash - path)}, buf, __LINE__);
}

char *platform_basename(const char *path, char *buf) {
    return path == nullptr ? nullptr : copy_of(zel::last_component(path), buf, __LINE__);
}

// The stem is the component up to the extension.
char *platform_extension(const char *path, char *buf) {
    if (path == nullptr) {
        return nullptr;
    }
    const std::string_view component = zel::last_component(path);
    const std::string_view stem = zel::without_extension(component);
    return stem.size() == component.size() ? nullptr : copy_of(zel::part_from(component, stem.size()), buf, __LINE__);
}

char *platform_stem(const char *path, char *buf) {
    return path == nullptr ? nullptr : copy_of(zel::without_extension(zel::last_component(path)), buf, __LINE__);
}
