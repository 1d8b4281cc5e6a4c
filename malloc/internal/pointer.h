// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A pointer as it is handed back, and as it is written.
#ifndef ZEL_MALLOC_INTERNAL_POINTER_H
#define ZEL_MALLOC_INTERNAL_POINTER_H

#include <cstdint>

namespace zel::memory {

inline constexpr uintptr_t kPointerAlignment = 8;
inline constexpr int kPointerDigits = static_cast<int>(2 * sizeof(void *));

// What every pointer that is handed back must be.
inline bool is_aligned(const void *pointer) {
    return reinterpret_cast<uintptr_t>(pointer) % kPointerAlignment == 0;
}

} // namespace zel::memory

#endif
