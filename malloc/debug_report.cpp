// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The report of the debug heap, of all blocks or of those since a mark.
#include <malloc/debug_heap.h>
#include <malloc/heap_report.h>

#include <malloc/internal/debug_check.h>
#include <malloc/internal/pointer.h>
#include <malloc/internal/trace.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

using zel::memory::Caller;
using zel::memory::debug_heap;
using zel::memory::kPointerDigits;
using zel::memory::Method;
using zel::memory::next_in_use;
using zel::memory::Record;

namespace {

struct Totals {
    unsigned long bytes;
    long pointers;
    long invalid;
};

// A text of a description, which may be missing.
const char *text_or_unknown(const char *text) {
    return text == nullptr ? "???" : text;
}

// DELIBERATE: the note opens its quotation with ` and closes it with '. Test:
// DebugHeapReport.AnAllocationByFunctionHasItsFunctionAndPurpose.
void print_heading() {
    msg_print("Note: a `*' in the first column indicates an invalid or corrupted pointer.");
    msg_print_raw("X  ID    %-*s  Length Method               Function/Line        Purpose/File\n", kPointerDigits,
                  "Pointer");
}

// Writes the row of a record. Raw messages are not wrapped: the columns stand at any
// width.
void print_row(const Record &record, const Caller &caller, uint32_t index, bool valid) {
    const char *mark = valid ? " " : "*";
    const auto id = static_cast<int>(index);
    const auto address = reinterpret_cast<unsigned long>(record.pointer);
    const auto length = static_cast<long>(record.length);
    const char *name = caller.name;
    if (caller.method == Method::file_line) {
        msg_print_raw("%s%5d 0x%0*lX%8ld %-20s %-20d %s\n", mark, id, kPointerDigits, address, length, name,
                      caller.place.line, caller.purpose_or_file);
        return;
    }
    msg_print_raw("%s%5d 0x%0*lX%8ld %-20s %-20s %s\n", mark, id, kPointerDigits, address, length, name,
                  text_or_unknown(caller.place.function), text_or_unknown(caller.purpose_or_file));
}

void add(Totals &totals, const Record &record, bool valid) {
    totals.bytes += record.length;
    totals.pointers += 1;
    totals.invalid += valid ? 0 : 1;
}

// Visits every record in use that is later than the mark, in the order of the indices.
// verbose: also writes the rows.
Totals walk_records(bool verbose, uint64_t mark) {
    Totals totals = {};
    for (uint32_t index = next_in_use(0); index < debug_heap.capacity; index = next_in_use(index + 1)) {
        if (!zel::memory::is_later(index, mark)) {
            continue;
        }
        const Record record = debug_heap.records[index]; // copies: a stream may make the tables move
        const Caller caller = debug_heap.callers[index];
        const bool valid = zel::memory::valid_record(record.pointer, zel::memory::heap_reach()) != nullptr;
        if (verbose && totals.pointers == 0) {
            print_heading();
        }
        if (verbose) {
            print_row(record, caller, index, valid);
        }
        add(totals, record, valid);
    }
    return totals;
}

// call: whose totals they are.
void print_totals(const char *call, const Totals &totals) {
    if (totals.pointers == 0) {
        msg_print("%s: No storage was allocated", call);
    } else if (totals.invalid == 0) {
        msg_print("%s: %lu bytes allocated, %ld pointers", call, totals.bytes, totals.pointers);
    } else {
        msg_print("%s: %lu bytes allocated, %ld pointers (%ld invalid or corrupted!)", call, totals.bytes,
                  totals.pointers, totals.invalid);
    }
}

} // namespace

void zel_malloc_debug_report(int verbose) {
    const zel::MemoryReport under_way;
    if (!zel::memory::warn_while_off("zel_malloc_debug_report")) {
        print_totals("zel_malloc_debug_report", walk_records(verbose != 0, 0));
    }
}

int32_t zel_malloc_report_since(uint64_t mark) {
    if (!zel::memory::debug_heap_on()) {
        return -1;
    }
    const zel::MemoryReport under_way;
    const Totals totals = walk_records(true, mark);
    print_totals("zel_malloc_report_since", totals);
    return static_cast<int32_t>(totals.pointers);
}
