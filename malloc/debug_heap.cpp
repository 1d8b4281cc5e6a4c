// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The debug heap: its state, its switch and its queries.
#include <malloc/debug_heap.h>

#include <malloc/internal/debug_diagnosis.h>
#include <malloc/internal/debug_records.h>
#include <malloc/internal/readable_memory.h>
#include <malloc/internal/zel_malloc_core.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

using zel::memory::debug_heap;
using zel::memory::warn_while_off;

namespace zel::memory {

constinit DebugHeap debug_heap = {.mode = 0,
                                  .verifying = false,
                                  .heap_start = 0,
                                  .records = nullptr,
                                  .callers = nullptr,
                                  .in_use = {},
                                  .capacity = 0,
                                  .bytes_in_use = 0};

bool warn_while_off(const char *operation) {
    if (debug_heap_on()) {
        return false;
    }
    msg_warn("%s should only be called when the malloc debug mode is enabled.", operation);
    return true;
}

} // namespace zel::memory

// Both modes record and guard every block: the program may switch between them at any
// time.
// DELIBERATE: only the first switch is refused after an allocation. Test:
// DebugHeapMode.TheModesMayBeSwitchedAtAnyTime.
// DELIBERATE: two blanks follow "Bad mode.". Test:
// DebugHeapMode.AnyOtherModeEndsTheProcess.
void zel_enable_malloc_debug(int mode) {
    const zel::MemoryReport under_way; // its errors are reports of the memory library
    if (mode == 0) {
        if (zel::memory::debug_heap_on()) {
            msg_fatal("zel_enable_malloc_debug: Once enabled, malloc debugging cannot be disabled.");
        }
        return;
    }
    if (mode != ZEL_MALLOC_CHECK_PTR && mode != ZEL_MALLOC_VERIFY_HEAP) {
        msg_fatal(
            "zel_enable_malloc_debug: Bad mode.  Should be either ZEL_MALLOC_CHECK_PTR or ZEL_MALLOC_VERIFY_HEAP.");
    }
    if (!zel::memory::debug_heap_on() && zel::memory::state.allocation_called) {
        msg_fatal(
            "zel_enable_malloc_debug cannot be called once one of the Zel MALLOC library allocation functions have "
            "been called.");
    }
    if (!zel::memory::debug_heap_on()) {
        zel::memory::find_heap_start();
    }
    const bool was_kept = zel::memory::keeps_in_use();
    debug_heap.mode = mode;
    zel::memory::state.watchers |= zel::memory::kDebugHeap;
    if (!was_kept && zel::memory::keeps_in_use()) {
        zel::memory::build_in_use();
    }
}

int zel_malloc_debug_mode() {
    return debug_heap.mode;
}

void zel_malloc_describe_ptr(const void *pointer) {
    const zel::MemoryReport under_way;
    if (!warn_while_off("zel_malloc_describe_ptr")) {
        msg_print("%s", zel::memory::diagnose(pointer, nullptr, false));
    }
}

unsigned long zel_malloc_mem_used() {
    const zel::MemoryReport under_way;
    warn_while_off("zel_malloc_mem_used");
    return debug_heap.bytes_in_use;
}

void zel_malloc_set_free_report_threshold(int32_t bytes) {
    debug_heap.free_report_threshold = bytes;
}
