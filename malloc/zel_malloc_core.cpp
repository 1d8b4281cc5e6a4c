// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core primitives: their state, and their forms while the debug heap is on.
#include <malloc/internal/zel_malloc_core.h>

#include <malloc/internal/debug_registration.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

#include <cerrno>

namespace zel::memory {

constinit State state = {.total_requested = 0, .allocation_called = false};

namespace {

// A release has no description of its caller.
constexpr Caller kRelease = by_function("zel_free", nullptr, nullptr);

// Gives a block back that has no record. Its request fails for lack of memory.
void *give_back(void *block) {
    free(block);
    errno = ENOMEM;
    return nullptr;
}

} // namespace

void *guarded_malloc(size_t size, Method method, const char *name, Place place, const char *purpose_or_file) {
    require_sound_heap({method, name, place, purpose_or_file});
    void *block = request_block(debug_block_size(size));
    if (block == nullptr) {
        return nullptr;
    }
    void *pointer = register_block(block, size, {method, name, place, purpose_or_file});
    return pointer == nullptr ? give_back(block) : memset(pointer, kFillByte, size);
}

// A resize fills nothing. The release frees a record: there is one for the resized block.
// DELIBERATE: with the debug heap on, a block that cannot be resized counts as released.
// Test: DebugHeapRealloc.ABlockThatCannotBeResizedCountsAsReleased.
void *guarded_realloc(void *pointer, size_t size, Method method, const char *name, Place place,
                      const char *purpose_or_file) {
    const Caller caller = {.method = method, .name = name, .place = place, .purpose_or_file = purpose_or_file};
    free_debug_info(pointer, caller);
    void *block = resize_block(block_of(pointer), debug_block_size(size));
    return block == nullptr ? nullptr : register_block(block, size, caller);
}

void guarded_free(void *pointer) {
    const size_t length = free_debug_info(pointer, kRelease);
    memset(pointer, kFillByte, length);
    free(block_of(pointer));
}

void refuse_unaligned(const void *pointer, const char *name) {
    const zel::MemoryReport under_way;
    msg_fatal("%s was passed an invalid pointer: 0x%0*lX", name, kPointerDigits,
              reinterpret_cast<unsigned long>(pointer));
}

} // namespace zel::memory
