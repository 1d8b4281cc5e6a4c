// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The example of the debug hook: a program of its own, since it is about the start of one. It prints its arguments.
#include <components/platform/debug_hooks.h>
#include <msg/msg.h>

int main(int argc, char **argv) {
    platform_debug_hooks(&argc, argv);
    for (int32_t place = 1; place < argc; ++place) {
        msg_print("%s", argv[place]);
    }
    return 0;
}
