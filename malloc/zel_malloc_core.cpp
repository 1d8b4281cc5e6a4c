// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core primitives: the one place where storage comes from the system and goes back to it.
#include <malloc/internal/core.h>
#include <msg/msg.h>

#include <cstdlib>

namespace zel::memory {

constinit State state = {.total_requested = 0, .allocation_called = false};

namespace {

constexpr uintptr_t kAlignment = 8;
constexpr int kPointerDigits = static_cast<int>(2 * sizeof(void *));

void require_aligned(const void *pointer, const char *name) {
    const auto address = reinterpret_cast<uintptr_t>(pointer);
    if (address % kAlignment != 0) {
        msg_fatal("%s was passed an invalid pointer: 0x%0*lX", name, kPointerDigits,
                  static_cast<unsigned long>(address));
    }
}

// Counted before it is known whether the system can provide it.
void count_attempt(size_t block_size) {
    state.allocation_called = true;
    state.total_requested += static_cast<uint32_t>(block_size);
}

} // namespace

// With the debug heap on, each primitive does its work around a larger block: the debug heap verifies, registers and
// fills here before the block is handed out, and checks, releases and fills before it goes back. While it is off, the
// block is what was asked for.

void *zel_malloc_core(size_t size, const Caller & /*caller*/) {
    count_attempt(size);
    return malloc(size);
}

void *zel_realloc_core(void *pointer, size_t size, const Caller &caller) {
    state.allocation_called = true;
    require_aligned(pointer, caller.name);
    count_attempt(size);
    return realloc(pointer, size);
}

void zel_free_core(void *pointer) {
    require_aligned(pointer, "zel_free");
    free(pointer);
}

} // namespace zel::memory
