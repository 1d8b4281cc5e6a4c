// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The shape of a block of the debug heap: its size and its guards.
#include <malloc/internal/debug_block.h>

namespace zel::memory {

namespace {

// A word of a guard. The program may use the same bytes under any type.
using Word [[gnu::may_alias]] = uint32_t;

constexpr size_t kHeaderSize = sizeof(Header);
constexpr size_t kWordSize = sizeof(uint32_t);
constexpr size_t kGuardSize = kHeaderSize + kWordSize;
static_assert(kHeaderSize == 8 && offsetof(Header, magic) == 4 && kGuardSize == 12);

// The size with its padding: the next multiple of a word.
constexpr size_t rounded_up(size_t size) {
    return (size + kWordSize - 1) & ~(kWordSize - 1);
}
static_assert(rounded_up(5) + kGuardSize == 20);

char *bytes_at(const void *pointer) {
    return static_cast<char *>(const_cast<void *>(pointer));
}

// The diagnosis of a double release needs the header of a released block. The address
// sanitizer ends a process that reads one: this function is exempt from it.
[[gnu::no_sanitize_address, gnu::noinline]] uint32_t read_word(const void *address) {
    return *static_cast<const volatile Word *>(address);
}

void write_word(void *address, uint32_t value) {
    *static_cast<Word *>(address) = value;
}

} // namespace

size_t debug_block_size(size_t size) {
    constexpr size_t kLargest = SIZE_MAX - kGuardSize - (kWordSize - 1);
    return size > kLargest ? SIZE_MAX : rounded_up(size) + kGuardSize;
}

void *user_pointer_of(void *block) {
    return bytes_at(block) + kHeaderSize;
}

void *block_of(void *pointer) {
    return bytes_at(pointer) - kHeaderSize;
}

// The address is computed as a number, because the pointer may have any value. The
// pointer is a multiple of 8, so its header lies within one page: where the magic can be
// read, the index can be read too.
bool read_header(const void *pointer, const Reach &reach, Header *header) {
    if (!is_readable(reinterpret_cast<uintptr_t>(pointer) - kWordSize, reach)) {
        return false;
    }
    const char *words = bytes_at(pointer) - kHeaderSize;
    *header = {.index = static_cast<int32_t>(read_word(words)), .magic = read_word(words + kWordSize)};
    return true;
}

bool has_intact_trailer(const void *pointer, size_t length, const Reach &reach) {
    const uintptr_t trailer = reinterpret_cast<uintptr_t>(pointer) + rounded_up(length);
    return is_readable(trailer, reach) && read_word(bytes_at(pointer) + rounded_up(length)) == kTrailerMagic;
}

void write_guards(void *pointer, size_t length, int32_t index) {
    write_word(bytes_at(pointer) + rounded_up(length), kTrailerMagic);
    write_word(block_of(pointer), static_cast<uint32_t>(index));
    write_word(bytes_at(pointer) - kWordSize, kLiveMagic);
}

void mark_released(void *pointer) {
    write_word(bytes_at(pointer) - kWordSize, kReleasedMagic);
}

} // namespace zel::memory
