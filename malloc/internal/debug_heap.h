// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The debug heap as the core primitives and its own files see it.
#ifndef ZEL_MALLOC_INTERNAL_DEBUG_HEAP_H
#define ZEL_MALLOC_INTERNAL_DEBUG_HEAP_H

#include <malloc/internal/caller.h>
#include <malloc/internal/index_set.h>

#include <cstddef>
#include <cstdint>

namespace zel::memory {

// ---- What the core primitives use ----------------------------------------------------------------------------------

// The bytes to take from the system for a request of that size; the largest number when there are none so large.
size_t debug_block_size(size_t size);

// The system's block of a user pointer.
void *block_of(void *pointer);

// Records a new block of the system's, writes its header and trailer, and returns its user pointer. Null when the table
// of records cannot grow: the block is as it was.
void *register_block(void *block, size_t size, const Caller &caller);

// Checks the pointer, then releases its record. The header is marked; the record keeps pointer, length and description.
// Returns the length. Anything wrong is an error that ends the process.
size_t free_debug_info(void *pointer, const Caller &caller);

// In verify mode: a heap that is not sound is reported, and the process ends.
void verify_before_allocation(const Caller &caller);

// What new and released bytes are filled with.
inline constexpr int kFillByte = 0xAB;

// ---- Shared by the files of the debug heap -------------------------------------------------------------------------

inline constexpr uint32_t kLiveMagic = 0x5739E56A;
inline constexpr uint32_t kReleasedMagic = 0x7D2C5B7E;
inline constexpr uint32_t kTrailerMagic = 0x35A7B641;

inline constexpr uintptr_t kPointerAlignment = 8;
inline constexpr int kPointerDigits = static_cast<int>(2 * sizeof(void *));

// The states of a record in use. Any other is the index of the next free record, or the end of that list.
inline constexpr int32_t kInUseByFunction = -1;
inline constexpr int32_t kInUseByLine = -2;
inline constexpr int32_t kEndOfFreeList = -3;

// One allocation, live or released. Its index is its ID.
struct Record {
    void *pointer;
    size_t length;
    Caller caller; // keeps its form when the record is released, so that a later diagnosis can name the owner
    int32_t state;
};

struct Header {
    int32_t index;
    uint32_t magic;
};

struct DebugHeap {
    int mode;                           // 0, ZEL_MALLOC_CHECK_PTR or ZEL_MALLOC_VERIFY_HEAP; never back to 0
    bool verifying;                     // while the whole heap is verified, and after it was found corrupted
    uintptr_t heap_start;               // of the system's heap; from there to sbrk(0) memory is read without asking
    Record *records;                    // only grows
    IndexSet in_use;                    // the records in use, for walking
    uint32_t capacity;                  // records in the table
    int32_t free_head = kEndOfFreeList; // released last, reused first
    size_t bytes_in_use;                // sum of the lengths of records in use
    int32_t free_report_threshold = -1; // negative: no note
};

extern DebugHeap debug_heap;

// Whether the debug heap is on, in either mode. Here, because every allocation asks.
inline bool debug_heap_on() {
    return debug_heap.mode != 0;
}

bool is_in_use(const Record &record);

// The record of an index, or null for one outside the table. An index equal to the capacity matches none.
Record *record_at(int32_t index);

// Whether there is a record to take, the table grown when there was none.
bool has_free_record();

// The index of a record that is now in use: the one that was released last. There is one.
int32_t take_record(Method method);
void release_record(int32_t index);

// A sanitizer's allocator keeps its blocks elsewhere than in the system's heap.
#ifdef __has_feature
#define ZEL_HAS_FEATURE(feature) __has_feature(feature)
#else
#define ZEL_HAS_FEATURE(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || ZEL_HAS_FEATURE(address_sanitizer)
inline constexpr bool kAlwaysProbes = true;
#else
inline constexpr bool kAlwaysProbes = false;
#endif

// Asks once where the system's heap starts. Without an answer it starts where it ends now.
void find_heap_start();

// The addresses between which memory is read without asking, until the next call of the system's allocator or of the
// program's code.
struct Reach {
    uintptr_t start;
    uintptr_t end;
};

Reach heap_reach();

// Whether the kernel can read the word at an address, a multiple of 4. A system call.
bool can_be_read(uintptr_t address);

// The same without a system call for an address in reach.
inline bool is_readable(uintptr_t address, const Reach &reach) {
    return (address >= reach.start && address < reach.end) || can_be_read(address);
}

// The header in front of a user pointer, which may be anything: false when there is no such memory.
bool read_header(const void *pointer, const Reach &reach, Header *header);

// Whether the word behind the record's user data is there and as it was written.
bool has_intact_trailer(const Record &record, const Reach &reach);

void mark_released(void *pointer);

// What every pointer that is handed back must be.
inline bool is_aligned(const void *pointer) {
    return reinterpret_cast<uintptr_t>(pointer) % kPointerAlignment == 0;
}

// The record of a pointer, in use and with header and trailer intact; null when the pointer is not valid.
const Record *valid_record(const void *pointer, const Reach &reach);

// The sentences on a pointer. known: its record, or null when that is not known. In a static buffer that every call
// overwrites.
const char *diagnose(const void *pointer, const Record *known, bool in_release);

// What the library was doing, from a call's description; "" when nothing is known. In a static buffer of its own.
const char *context_text(const Caller &caller);

} // namespace zel::memory

#endif
