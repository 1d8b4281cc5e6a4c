// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Temporary files and directories under names of their own.
#include <components/platform/file_services.h>

#include <components/platform/base/descriptor.h>
#include <components/platform/base/path.h>
#include <components/platform/file_services/unique_name.h>
#include <msg/base/variables.h>

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::string_view kRandomPart = "XXXXXX";
constexpr mode_t kFileMode = 0600;
constexpr mode_t kDirectoryMode = 0700;

const char *usual_folder() {
    for (const char *name : {"ZEL_TMPDIR", "TMP", "TEMP"}) {
        const char *value = zel::variable(name);
        if (value != nullptr && *value != '\0') {
            return value;
        }
    }
    return "/tmp";
}

bool fail(int error) {
    errno = error;
    return false;
}

// Puts the path together, with room for its random part.
bool build_path(zel::PathBuffer &path, const char *dir, const char *prefix) {
    const std::string_view folder = dir == nullptr ? usual_folder() : dir;
    if (folder.empty()) {
        return fail(ENOENT);
    }
    if (strchr(prefix, '/') != nullptr) {
        return fail(EINVAL);
    }
    const char *between = folder.ends_with('/') ? "" : "/";
    return zel::format_text(path, "%s%s%s%s", folder.data(), between, prefix, kRandomPart.data()) || fail(ERANGE);
}

// Makes something under a new path, and tells the caller the path. make returns -1 with
// errno when it fails.
template <typename Make>
int make_temporary(const char *dir, const char *prefix, std::span<char> result, Make make) {
    zel::PathBuffer path;
    if (!build_path(path, dir, prefix)) {
        return -1;
    }
    const size_t length = strlen(path.data());
    if (result.size() <= length) {
        errno = ERANGE;
        return -1;
    }
    const std::span random = std::span(path).subspan(length - kRandomPart.size(), kRandomPart.size());
    const int made = zel::make_unique(random, [&path, make] { return make(path.data()); });
    if (made != -1) {
        memcpy(result.data(), path.data(), length + 1);
    }
    return made;
}

int make_file(const char *path) {
    const int created = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode);
    const int file = zel::take_above_standard(created);
    if (created != -1 && file == -1) {
        const zel::ErrnoKept kept;
        unlink(path);
    }
    return file;
}

int make_dir(const char *path) {
    return mkdir(path, kDirectoryMode);
}

} // namespace

int platform_temporary_file(const char *dir, const char *prefix, char *path, size_t size) {
    return make_temporary(dir, prefix, {path, size}, make_file);
}

int platform_temporary_dir(const char *dir, const char *prefix, char *path, size_t size) {
    return make_temporary(dir, prefix, {path, size}, make_dir) == 0 ? 1 : 0;
}
