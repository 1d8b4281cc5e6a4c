// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core primitives: storage comes from the system and goes back to it in this file
// alone.
#include <malloc/internal/zel_malloc_core.h>

#include <malloc/internal/debug_block.h>
#include <malloc/internal/debug_check.h>
#include <malloc/internal/debug_heap_state.h>
#include <malloc/internal/debug_registration.h>
#include <malloc/internal/pointer.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

#include <cerrno>
#include <cstdlib>

namespace zel::memory {

constinit State state = {.total_requested = 0, .allocation_called = false};

namespace {

// A release has no description of its caller.
constexpr Caller kRelease = by_function("zel_free", nullptr, nullptr);

void require_aligned(const void *pointer, const char *name) {
    if (!is_aligned(pointer)) {
        const zel::MemoryReport under_way;
        msg_fatal("%s was passed an invalid pointer: 0x%0*lX", name, kPointerDigits,
                  reinterpret_cast<unsigned long>(pointer));
    }
}

// Asks the system for a block. An attempt that fails counts as well.
void *request_block(size_t size) {
    void *block = malloc(size);
    state.total_requested += static_cast<uint32_t>(size);
    return block;
}

// Asks the system to resize a block. An attempt that fails counts as well.
void *resize_block(void *block, size_t size) {
    void *resized = realloc(block, size);
    state.total_requested += static_cast<uint32_t>(size);
    return resized;
}

// Gives a block back that has no record. Its request fails for lack of memory.
void give_back(void *block) {
    free(block);
    errno = ENOMEM;
}

} // namespace

void *zel_malloc_core(size_t size, const Caller &caller) {
    state.allocation_called = true;
    if (!debug_heap_on()) {
        return request_block(size);
    }
    require_sound_heap(caller);
    void *block = request_block(debug_block_size(size));
    if (block == nullptr) {
        return nullptr;
    }
    void *pointer = register_block(block, size, caller);
    if (pointer == nullptr) {
        give_back(block);
        return nullptr;
    }
    return memset(pointer, kFillByte, size);
}

// A resize fills nothing.
// DELIBERATE: with the debug heap on, a block that cannot be resized counts as released.
// Test: DebugHeapRealloc.ABlockThatCannotBeResizedCountsAsReleased.
void *zel_realloc_core(void *pointer, size_t size, const Caller &caller) {
    state.allocation_called = true;
    require_aligned(pointer, caller.name);
    if (!debug_heap_on()) {
        return resize_block(pointer, size);
    }
    free_debug_info(pointer, caller); // frees a record: there is one for the resized block
    void *block = resize_block(block_of(pointer), debug_block_size(size));
    return block == nullptr ? nullptr : register_block(block, size, caller);
}

void zel_free_core(void *pointer) {
    require_aligned(pointer, kRelease.name);
    if (!debug_heap_on()) {
        free(pointer);
        return;
    }
    const size_t length = free_debug_info(pointer, kRelease);
    memset(pointer, kFillByte, length);
    free(block_of(pointer));
}

} // namespace zel::memory
