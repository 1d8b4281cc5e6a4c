// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The owners of the live blocks, as lines and as a JSON text.
#include <malloc/heap_report.h>

#include <malloc/internal/debug_records.h>
#include <malloc/internal/json_text.h>
#include <malloc/internal/trace.h>
#include <msg/base/memory_report.h>
#include <msg/msg.h>

#include <algorithm>
#include <cerrno>

using zel::memory::debug_heap;
using zel::memory::JsonText;
using zel::memory::OwnerSum;
using zel::memory::OwnerTable;
using zel::memory::put;
using zel::memory::put_number;

namespace {

// Sums in the order of a report, and the sum of them all.
struct Sums {
    OwnerTable owners;
    unsigned long blocks;
    size_t bytes;
    size_t peak;
};

bool comes_first(const OwnerSum &a, const OwnerSum &b) {
    return a.bytes != b.bytes ? a.bytes > b.bytes : zel::memory::compare_owners(a.owner, b.owner) < 0;
}

// Adds the live blocks up by their records. Returns false without memory.
bool add_up_blocks(Sums &sums) {
    for (uint32_t index = zel::memory::next_in_use(0); index < debug_heap.capacity;
         index = zel::memory::next_in_use(index + 1)) {
        const int32_t place = add_owner(sums.owners, owner_of(debug_heap.callers[index]));
        if (place == zel::memory::kNoOwner) {
            return false;
        }
        add_block(sums.owners.sums[place], debug_heap.records[index].length);
        sums.blocks += 1;
        sums.bytes += debug_heap.records[index].length;
    }
    return true;
}

// Makes the sums. The caller clears their owners, also when this returns false, without
// memory.
bool add_up(Sums &sums) {
    sums = {};
    if (!add_up_blocks(sums)) {
        return false;
    }
    sums.peak = std::max(sums.bytes, zel::memory::trace.peak);
    const std::span<OwnerSum> owners(sums.owners.sums, sums.owners.count);
    for (OwnerSum &sum : owners) {
        sum.peak = std::max(sum.bytes, zel::memory::traced_peak(sum.owner));
    }
    std::sort(owners.begin(), owners.end(), comes_first);
    return true;
}

// Raw messages are not wrapped: the columns stand at any width.
void print_row(const OwnerSum &sum) {
    const char *name = sum.owner.text == nullptr ? "???" : sum.owner.text;
    const unsigned long blocks = sum.blocks;
    const unsigned long bytes = sum.bytes;
    const unsigned long peak = sum.peak;
    if (sum.owner.line == 0) {
        msg_print_raw("%8lu %10lu %10lu  %s\n", blocks, bytes, peak, name);
        return;
    }
    msg_print_raw("%8lu %10lu %10lu  %s:%d\n", blocks, bytes, peak, name, sum.owner.line);
}

void print(const Sums &sums) {
    if (sums.blocks == 0) {
        msg_print("zel_malloc_report_owners: No storage was allocated");
        return;
    }
    msg_print_raw("  Blocks      Bytes       Peak  Function or File:Line\n");
    for (uint32_t place = 0; place < sums.owners.count; ++place) {
        print_row(sums.owners.sums[place]);
    }
    msg_print("zel_malloc_report_owners: %lu bytes allocated, %lu pointers, %lu owners",
              static_cast<unsigned long>(sums.bytes), sums.blocks, static_cast<unsigned long>(sums.owners.count));
}

// Puts the three numbers that every sum has.
void put_sum(JsonText &json, unsigned long blocks, size_t bytes, size_t peak) {
    put(json, "\"blocks\":");
    put_number(json, static_cast<long long>(blocks));
    put(json, ",\"bytes\":");
    put_number(json, static_cast<long long>(bytes));
    put(json, ",\"peak\":");
    put_number(json, static_cast<long long>(peak));
}

void put_owner(JsonText &json, const OwnerSum &sum) {
    put(json, "{\"owner\":");
    put_string(json, sum.owner.text);
    put(json, ",\"line\":");
    put_number(json, sum.owner.line);
    put(json, ",");
    put_sum(json, sum.blocks, sum.bytes, sum.peak);
    put(json, "}");
}

void put_sums(JsonText &json, const Sums &sums) {
    put(json, "{");
    put_sum(json, sums.blocks, sums.bytes, sums.peak);
    put(json, ",\"owners\":[");
    for (uint32_t place = 0; place < sums.owners.count; ++place) {
        put(json, place == 0 ? "" : ",");
        put_owner(json, sums.owners.sums[place]);
    }
    put(json, "]}");
}

// The text of the sums in storage of its own; null without memory.
char *json_of(const Sums &sums) {
    JsonText counted = {};
    put_sums(counted, sums);
    auto *text = static_cast<char *>(malloc(counted.length + 1));
    if (text == nullptr) {
        return nullptr;
    }
    JsonText json = {.storage = {text, counted.length}, .length = 0};
    put_sums(json, sums);
    text[counted.length] = '\0';
    return text;
}

} // namespace

// The sums are a copy: what the streams allocate and release does not touch them.
int32_t zel_malloc_report_owners() {
    if (!zel::memory::debug_heap_on()) {
        return -1;
    }
    Sums sums;
    int32_t owners = -2;
    if (add_up(sums)) {
        const zel::MemoryReport under_way;
        print(sums);
        owners = static_cast<int32_t>(sums.owners.count);
    }
    clear_owners(sums.owners);
    return owners;
}

char *zel_malloc_report_json() {
    if (!zel::memory::debug_heap_on()) {
        return nullptr;
    }
    Sums sums;
    char *text = add_up(sums) ? json_of(sums) : nullptr;
    clear_owners(sums.owners);
    if (text == nullptr) {
        errno = ENOMEM;
    }
    return text;
}
