/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * A program that calls the start-up hook and ends. */
#include <components/platform/debug_hooks.h>

int main(int argc, char **argv) {
    int32_t count = argc;
    platform_debug_hooks(&count, argv);
    return 0;
}
