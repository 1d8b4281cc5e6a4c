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
    const size_t name_length = strlen(name);
    const size_t value_size = strlen(value) + 1;
    char *entry = static_cast<char *>(malloc(name_length + 1 + value_size));
    if (entry == nullptr) {
        return 0;
    }
    memcpy(entry, name, name_length);
    entry[name_length] = '=';
    memcpy(entry + name_length + 1, value, value_size);
    putenv(entry); // the environment keeps the storage
    return 0;
}

int platform_is_writable_dir(const char *path) {
    struct stat status;
    return path != nullptr && access(path, W_OK) == 0 && stat(path, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}
