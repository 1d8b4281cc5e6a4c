// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core of the environment services: variables, and the test for a directory that can
// be written.
#include <components/platform/environment.h>

#include <msg/base/text.h>

#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

char *platform_getenv(const char *name) {
    return getenv(name);
}

// Copied and not formatted: between fork and exec a child takes a fault for each page of
// code that it uses.
int platform_setenv(const char *name, const char *value) {
    const std::string_view key = name;
    const std::string_view text = value;
    const size_t size = key.size() + 1 + text.size() + 1;
    char *entry = static_cast<char *>(malloc(size));
    if (entry == nullptr) {
        return 0;
    }
    zel::copy_part({entry, size}, key);
    entry[key.size()] = '=';
    zel::copy_part({entry + key.size() + 1, text.size()}, text);
    entry[size - 1] = '\0';
    putenv(entry); // the environment keeps the storage
    return 0;
}

int platform_is_writable_dir(const char *path) {
    struct stat status;
    return path != nullptr && access(path, W_OK) == 0 && stat(path, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}
