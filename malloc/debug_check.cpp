// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The check of the whole heap.
#include <malloc/internal/debug_check.h>

#include <malloc/heap_report.h>
#include <malloc/internal/debug_diagnosis.h>
#include <malloc/internal/zel_malloc_core.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

using zel::memory::debug_heap;

namespace zel::memory {

namespace {

// Whether the block of a record in use is sound at first sight: aligned, all of it within
// reach, both guards intact, and its header names that very record. The pointer is not
// behind the trailer: the one is held against the start of the heap, the other against
// its end.
inline bool is_plainly_sound(const Record &record, uint32_t index, Reach reach) {
    const auto address = reinterpret_cast<uintptr_t>(record.pointer);
    const uintptr_t trailer = (address + record.length + (kWordSize - 1)) & ~(kWordSize - 1);
    return is_aligned(record.pointer) && address >= reach.start + kWordSize && trailer >= address &&
           trailer < reach.end && is_live_header(record.pointer, static_cast<int32_t>(index)) &&
           read_word(bytes_at(record.pointer) + (trailer - address)) == kTrailerMagic;
}

// Whether the pointer of a record is valid all the same. Out of line: the walk keeps its
// registers.
[[gnu::noinline]] bool is_valid(const Record &record, Reach reach) {
    return valid_record(record.pointer, reach) != nullptr;
}

// The smallest index in use, not below from, whose pointer is not valid; the capacity
// when there is none.
uint32_t next_unsound(uint32_t from) {
    const Reach reach = heap_reach();
    const uint32_t capacity = debug_heap.capacity;
    for (IndexRun run = next_run(debug_heap.in_use, capacity, from); run.first < capacity;
         run = next_run(debug_heap.in_use, capacity, run.end)) {
        const Record *record = &debug_heap.records[run.first];
        for (uint32_t index = run.first; index < run.end; ++index, ++record) {
            if (!is_plainly_sound(*record, index, reach) && !is_valid(*record, reach)) [[unlikely]] {
                return index;
            }
        }
    }
    return capacity;
}

// Brings the set of the indices in use up to date in the mode that does not keep it.
void make_sure_of_in_use() {
    if (!keeps_in_use()) {
        build_in_use();
    }
}

// Checks every record in use, in the order of the indices. Each finding is a warning if
// it is to be written. A stream that takes it may run the program's code: the table and
// the end of the heap may move, and the program may switch to the mode that does not keep
// the set. The verification goes on all the same. Returns how many findings there are.
int32_t count_findings(bool written) {
    int32_t findings = 0;
    make_sure_of_in_use();
    for (uint32_t index = next_unsound(0); index < debug_heap.capacity; index = next_unsound(index + 1)) {
        ++findings;
        if (written) {
            const Record &record = debug_heap.records[index];
            msg_warn("%s", diagnose(record.pointer, &record, false));
            make_sure_of_in_use();
        }
    }
    return findings;
}

} // namespace

void verify_heap(Method method, const char *name, Place place, const char *purpose_or_file) {
    const Caller caller = {.method = method, .name = name, .place = place, .purpose_or_file = purpose_or_file};
    debug_heap.verifying = true;
    const zel::MemoryReport under_way; // the findings are reports of the memory library
    if (count_findings(true) > 0) {
        msg_fatal("%s: The heap was corrupted. %s", caller.name, context_text(caller));
    }
    debug_heap.verifying = false;
}

} // namespace zel::memory

// A stream that verifies the heap at every write would be told the same finding without
// end: while findings are written they are only counted.
int32_t zel_malloc_verify() {
    if (!zel::memory::debug_heap_on()) {
        return -1;
    }
    const bool within_another = debug_heap.verifying;
    const zel::MemoryReport under_way;
    debug_heap.verifying = true;
    const int32_t findings = zel::memory::count_findings(!within_another);
    debug_heap.verifying = within_another;
    return findings;
}
