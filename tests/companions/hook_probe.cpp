// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Calls the start-up hook first thing, then says that it runs and with which arguments.
#include <components/platform/debug_hooks.h>

#include <cstdio>

int main(int argc, char **argv) {
    int32_t count = argc;
    platform_debug_hooks(&count, argv);
    printf("running with %d", count);
    for (int index = 1; index < count; ++index) {
        printf(" %s", argv[index]);
    }
    printf("\n");
    return 0;
}
