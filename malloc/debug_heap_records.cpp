// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The record table of the debug heap, and the words around a block.
#include <malloc/debug_heap.h>
#include <malloc/internal/debug_heap.h>
#include <msg/base/limits.h>
#include <msg/base/text.h>
#include <msg/msg.h>

#include <algorithm>
#include <cstdlib>
#include <sys/syscall.h>
#include <unistd.h>

namespace zel::memory {

constinit DebugHeap debug_heap = {
    .mode = 0, .verifying = false, .records = nullptr, .in_use = {}, .capacity = 0, .bytes_in_use = 0};

namespace {

// The words around user data are read as such, whatever type the user gave to the bytes around them.
using Word [[gnu::may_alias]] = uint32_t;

constexpr size_t kHeaderSize = sizeof(Header);
constexpr size_t kWordSize = sizeof(uint32_t);
constexpr size_t kGuardSize = kHeaderSize + kWordSize;
static_assert(kHeaderSize == 8 && kGuardSize == 12);

constexpr size_t rounded_up(size_t size) {
    return (size + kWordSize - 1) & ~(kWordSize - 1);
}

char *bytes_at(const void *pointer) {
    return static_cast<char *>(const_cast<void *>(pointer));
}

// Released blocks are read here on purpose: a pointer released twice is told by what its first release wrote into the
// header. The address sanitizer would stop the process before the diagnosis, so these two reads are exempt from it.
[[gnu::no_sanitize_address, gnu::noinline]] uint32_t read_word(const void *address) {
    return *static_cast<const volatile Word *>(address);
}

void write_word(void *address, uint32_t value) {
    *static_cast<Word *>(address) = value;
}

// The kernel looks at a signal set before it looks at what is to be done with it: the one call that tells whether
// eight bytes can be read and does nothing else. ~0 is no operation on a mask. A set at address 0 would be no set at
// all, which is not looked at.
bool is_readable(uintptr_t address) {
    constexpr size_t kSetSize = 8;
    const zel::ErrnoKept kept;
    return address != 0 && (syscall(SYS_rt_sigprocmask, ~0, address, nullptr, kSetSize) == 0 || errno != EFAULT);
}

// A larger table for that many records, taken from the system directly: it is no allocation of the program's.
template <typename Entry>
Entry *enlarge(Entry *table, size_t count, uint32_t capacity) {
    auto *larger = static_cast<Entry *>(realloc(static_cast<void *>(table), count * sizeof(Entry)));
    if (larger == nullptr) {
        msg_fatal("Zel MALLOC library internal error: no memory for %lu debug info structures.",
                  static_cast<unsigned long>(capacity));
    }
    return larger;
}

void grow_index_set(uint32_t before, uint32_t capacity) {
    for (uint32_t level = 0; level < kIndexLevels; ++level) {
        const uint32_t words_before = before == 0 ? 0 : index_words(before, level);
        const uint32_t words = index_words(capacity, level);
        if (words == words_before) {
            return;
        }
        uint32_t *&table = debug_heap.in_use.levels[level];
        table = enlarge(table, words, capacity);
        std::fill(table + words_before, table + words, 0);
    }
}

void grow_table() {
    const uint32_t before = debug_heap.capacity;
    const uint32_t capacity = before + kRecordTableStep;
    debug_heap.records = enlarge(debug_heap.records, capacity, capacity);
    grow_index_set(before, capacity);
    for (uint32_t index = before; index < capacity; ++index) {
        debug_heap.records[index] = {};
        debug_heap.records[index].state = static_cast<int32_t>(index + 1);
    }
    debug_heap.records[capacity - 1].state = kEndOfFreeList;
    debug_heap.free_head = static_cast<int32_t>(before);
    debug_heap.capacity = capacity;
}

int32_t take_record(Method method) {
    if (debug_heap.free_head == kEndOfFreeList) {
        grow_table();
    }
    const int32_t index = debug_heap.free_head;
    Record &record = debug_heap.records[index];
    debug_heap.free_head = record.state;
    record.state = method == Method::file_line ? kInUseByLine : kInUseByFunction;
    insert_index(debug_heap.in_use, static_cast<uint32_t>(index));
    return index;
}

} // namespace

size_t debug_block_size(size_t size) {
    constexpr size_t kLargest = SIZE_MAX - kGuardSize - (kWordSize - 1);
    return size > kLargest ? SIZE_MAX : rounded_up(size) + kGuardSize;
}

void *block_of(void *pointer) {
    return bytes_at(pointer) - kHeaderSize;
}

bool is_in_use(const Record &record) {
    return record.state == kInUseByFunction || record.state == kInUseByLine;
}

Record *record_at(int32_t index) {
    return index < 0 || static_cast<uint32_t>(index) >= debug_heap.capacity ? nullptr : &debug_heap.records[index];
}

Header read_header(const void *pointer) {
    const char *header = bytes_at(pointer) - kHeaderSize;
    return {.index = static_cast<int32_t>(read_word(header)), .magic = read_word(header + kWordSize)};
}

uint32_t read_trailer(const void *pointer, size_t length) {
    return read_word(bytes_at(pointer) + rounded_up(length));
}

bool probe_header(const void *pointer, Header *header) {
    // As numbers: nothing may be computed from a pointer that points nowhere.
    if (!is_readable(reinterpret_cast<uintptr_t>(pointer) - kHeaderSize)) {
        return false;
    }
    *header = read_header(pointer);
    return true;
}

// Together with the word in front of it, which belongs to the block too: memory checkers know what is behind.
bool probe_trailer(const void *pointer, size_t length, uint32_t *trailer) {
    if (!is_readable(reinterpret_cast<uintptr_t>(pointer) + rounded_up(length) - kWordSize)) {
        return false;
    }
    *trailer = read_trailer(pointer, length);
    return true;
}

void mark_released(void *pointer) {
    write_word(bytes_at(pointer) - kWordSize, kReleasedMagic);
}

void *register_block(void *block, size_t size, const Caller &caller) {
    char *pointer = bytes_at(block) + kHeaderSize;
    const int32_t index = take_record(caller.method);
    Record &record = debug_heap.records[index];
    record.pointer = pointer;
    record.length = size;
    record.caller = caller;
    debug_heap.bytes_in_use += size;
    write_word(pointer + rounded_up(size), kTrailerMagic);
    write_word(block, static_cast<uint32_t>(index));
    write_word(pointer - kWordSize, kLiveMagic);
    return pointer;
}

size_t recorded_length(const void *pointer) {
    return debug_heap.records[read_header(pointer).index].length;
}

} // namespace zel::memory
