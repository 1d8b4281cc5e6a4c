// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A C++17 program outside the tree, which includes headers one by one by their paths in the tree.
#include <components/platform/process_info.h>
#include <components/platform/zel_pair_connection.h>
#include <malloc/zel_malloc.h>
#include <msg/msg.h>

#include <type_traits>

int main() {
    auto *numbers = ZEL_MALLOC_ARRAY(int32_t, 2);
    static_assert(std::is_same_v<decltype(numbers), int32_t *>);
    char *text = ZEL_STRDUP("forty-two");
    char *numbered = zel_printf_strdup("%s is %d", text, 42);
    numbers[0] = platform_process_exists(static_cast<unsigned long>(platform_getpid()));
    numbers[1] = platform_pair_valid(nullptr);
    msg_print("%s: %d %d", numbered, numbers[0], numbers[1]);
    zel_free(numbered);
    zel_free(text);
    zel_free(numbers);
    return 0;
}
