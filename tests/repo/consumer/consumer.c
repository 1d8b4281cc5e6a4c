/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * A C11 program outside the tree, which uses a call of each layer. */
#include <zel.h>

int main(void) {
    int32_t *numbers = ZEL_MALLOC_ARRAY(int32_t, 2);
    char *text = ZEL_STRDUP("forty-two");
    char *numbered = zel_printf_strdup("%s is %d", text, 42);
    numbers[0] = platform_process_exists((unsigned long) platform_getpid());
    numbers[1] = platform_pair_valid(NULL);
    msg_print("%s: %d %d", numbered, (int) numbers[0], (int) numbers[1]);
    zel_free(numbered);
    zel_free(text);
    zel_free(numbers);
    return 0;
}
