// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Calls the start-up hook first thing, then says which arguments and which of the library's variables are left. A test
// starts it with raised rights.
#include <components/platform/debug_hooks.h>
#include <msg/diag_log.h>

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constexpr const char *kPrefixes[] = {"ZEL_", "TMP=", "TEMP="};

bool is_of_the_library(const char *entry) {
    for (const char *prefix : kPrefixes) {
        if (strncmp(entry, prefix, strlen(prefix)) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char **argv) {
    int32_t count = argc;
    platform_debug_hooks(&count, argv);
    printf("%d arguments, logs in %s\n", count, msg_get_diag_dir());
    for (char **entry = environ; *entry != nullptr; ++entry) {
        if (is_of_the_library(*entry)) {
            printf("%s\n", *entry);
        }
    }
    // Without exit handlers: a sanitizer that looks for leaks at the end may not trace a process with raised rights.
    fflush(stdout);
    _exit(0);
}
