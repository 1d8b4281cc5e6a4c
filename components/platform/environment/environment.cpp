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

int platform_setenv(const char *name, const char *value) {
    const size_t size = strlen(name) + strlen(value) + 2;
    char *entry = static_cast<char *>(malloc(size));
    if (entry == nullptr) {
        return 0;
    }
    zel::format_text({entry, size}, "%s=%s", name, value);
    putenv(entry); // the environment keeps the storage
    return 0;
}

int platform_is_writable_dir(const char *path) {
    struct stat status;
    return path != nullptr && access(path, W_OK) == 0 && stat(path, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}
