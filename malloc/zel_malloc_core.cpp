// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The core primitives: their state, and their forms while something looks at the requests.
#include <malloc/internal/zel_malloc_core.h>

#include <malloc/heap_report.h>
#include <malloc/internal/debug_registration.h>
#include <malloc/internal/trace.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

#include <cerrno>

using zel::memory::kAwaitedFailure;
using zel::memory::State;

namespace zel::memory {

constinit State state = {.total_requested = 0, .allocation_called = false, .watchers = 0, .requests_left = 0};

namespace {

// A release has no description of its caller.
constexpr Caller kRelease = by_function("zel_free", nullptr, nullptr);

// Gives a block back that has no record. Its request fails for lack of memory.
void *give_back(void *block) {
    free(block);
    errno = ENOMEM;
    return nullptr;
}

// Counts a request down to the awaited failure. Returns whether it is the one that fails.
bool is_failing_request() {
    if ((state.watchers & kAwaitedFailure) == 0) {
        return false;
    }
    if (state.requests_left > 0) {
        --state.requests_left;
        return false;
    }
    state.watchers &= ~kAwaitedFailure;
    return true;
}

// An attempt that the system would refuse for lack of memory. It counts as well.
void *refuse_request(size_t size) {
    state.total_requested += static_cast<uint32_t>(size);
    errno = ENOMEM;
    return nullptr;
}

void *request_or_fail(size_t size) {
    return is_failing_request() ? refuse_request(size) : request_block(size);
}

void *resize_or_fail(void *block, size_t size) {
    return is_failing_request() ? refuse_request(size) : resize_block(block, size);
}

// Records and fills a new block. Returns the user pointer; null without a block, and
// without memory for a record.
[[gnu::always_inline]] inline void *guard(void *block, size_t size, const Caller &caller) {
    if (block == nullptr) {
        return nullptr;
    }
    void *pointer = register_block(block, size, caller);
    return pointer == nullptr ? give_back(block) : memset(pointer, kFillByte, size);
}

// Enters a block that was registered into the trace. pointer: may be null. Returns it.
void *traced(void *pointer) {
    if (pointer != nullptr && is_traced()) {
        trace_new_block(pointer);
    }
    return pointer;
}

// watched_malloc while something is on that is not the debug heap alone.
[[gnu::noinline]] void *closely_watched_malloc(size_t size, Method method, const char *name, Place place,
                                               const char *purpose_or_file) {
    const Caller caller = {.method = method, .name = name, .place = place, .purpose_or_file = purpose_or_file};
    if (!debug_heap_on()) {
        return request_or_fail(size);
    }
    require_sound_heap(caller);
    return traced(guard(request_or_fail(debug_block_size(size)), size, caller));
}

} // namespace

void *watched_malloc(size_t size, Method method, const char *name, Place place, const char *purpose_or_file) {
    if (state.watchers != kDebugHeap) [[unlikely]] {
        return closely_watched_malloc(size, method, name, place, purpose_or_file);
    }
    require_sound_heap({method, name, place, purpose_or_file});
    return guard(request_block(debug_block_size(size)), size, {method, name, place, purpose_or_file});
}

// A resize fills nothing. The release frees a record: there is one for the resized block.
// The note of the release may take the first mark, so the trace is asked for behind it.
// DELIBERATE: with the debug heap on, a block that cannot be resized counts as released.
// Test: DebugHeapRealloc.ABlockThatCannotBeResizedCountsAsReleased.
void *watched_realloc(void *pointer, size_t size, Method method, const char *name, Place place,
                      const char *purpose_or_file) {
    if (!debug_heap_on()) {
        return resize_or_fail(pointer, size);
    }
    const Caller caller = {.method = method, .name = name, .place = place, .purpose_or_file = purpose_or_file};
    const size_t length = free_debug_info(pointer, caller);
    if (is_traced()) [[unlikely]] {
        trace_released_block(pointer, length);
    }
    void *block = resize_or_fail(block_of(pointer), debug_block_size(size));
    return block == nullptr ? nullptr : traced(register_block(block, size, caller));
}

void guarded_free(void *pointer) {
    const size_t length = free_debug_info(pointer, kRelease);
    if (is_traced()) [[unlikely]] {
        trace_released_block(pointer, length);
    }
    memset(pointer, kFillByte, length);
    free(block_of(pointer));
}

void refuse_unaligned(const void *pointer, const char *name) {
    const zel::MemoryReport under_way;
    msg_fatal("%s was passed an invalid pointer: 0x%0*lX", name, kPointerDigits,
              reinterpret_cast<unsigned long>(pointer));
}

} // namespace zel::memory

long zel_malloc_fail_after(long n) {
    State &state = zel::memory::state;
    const bool was_awaited = (state.watchers & kAwaitedFailure) != 0;
    const long left = was_awaited ? state.requests_left : -1;
    state.watchers &= ~kAwaitedFailure;
    if (n >= 0) {
        state.watchers |= kAwaitedFailure;
        state.requests_left = n;
    }
    return left;
}
