// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A user pointer: its alignment, and its digits in a text.
#ifndef ZEL_MALLOC_INTERNAL_POINTER_H
#define ZEL_MALLOC_INTERNAL_POINTER_H

#include <cstdint>

namespace zel::memory {

// A pointer that is resized or released must be a multiple of this, on both targets.
inline constexpr uintptr_t kPointerAlignment = 8;

// The digits of a pointer in a text: 8 on x86, 16 on x86-64.
inline constexpr int kPointerDigits = static_cast<int>(2 * sizeof(void *));

// Whether a pointer has the alignment of a user pointer.
inline bool is_aligned(const void *pointer) {
    return reinterpret_cast<uintptr_t>(pointer) % kPointerAlignment == 0;
}

} // namespace zel::memory

#endif
