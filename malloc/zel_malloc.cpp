// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The entries of the memory library that allocate, resize and release.
#include <malloc/zel_malloc.h>

#include <malloc/internal/failure_report.h>

#include <cerrno>
#include <cstring>

using zel::memory::by_function;
using zel::memory::by_line;
using zel::memory::Caller;
using zel::memory::Method;
using zel::memory::Place;
using zel::memory::report_failure;
using zel::memory::zel_free_core;
using zel::memory::zel_malloc_core;
using zel::memory::zel_realloc_core;

namespace {

// Decides the result of a request that failed.
using OnFailure = void *(size_t size, Method method, const char *name, Place place, const char *purpose_or_file);

// An _if_room entry returns null when memory has run out. Any other error is reported.
[[gnu::cold]] void *report_unless_out_of_memory(size_t size, Method method, const char *name, Place place,
                                                const char *purpose_or_file) {
    return errno == ENOMEM ? nullptr : report_failure(size, method, name, place, purpose_or_file);
}

// The result of a request that failed. Everything around it is inline, so that an entry
// is one function.
[[gnu::always_inline]] inline void *fail(size_t size, const Caller &caller, OnFailure on_failure) {
    return on_failure(size, caller.method, caller.name, caller.place, caller.purpose_or_file);
}

// The entries that allocate, whatever describes their caller.
[[gnu::always_inline]] inline void *allocate(size_t size, const Caller &caller, OnFailure on_failure = report_failure) {
    if (size == 0) {
        return nullptr;
    }
    void *block = zel_malloc_core(size, caller);
    return block != nullptr ? block : fail(size, caller, on_failure);
}

// The entries that clear.
// DELIBERATE: the product is not tested for overflow and wraps at the width of size_t.
// Test: ZelCalloc.TheProductWrapsWithoutATest.
[[gnu::always_inline]] inline void *allocate_zeroed(size_t count, size_t size, const Caller &caller,
                                                    OnFailure on_failure = report_failure) {
    if (count == 0 || size == 0) {
        return nullptr;
    }
    const size_t bytes = count * size;
    void *block = zel_malloc_core(bytes, caller);
    return block != nullptr ? memset(block, 0, bytes) : fail(bytes, caller, on_failure);
}

// The entries that resize. With a null pointer they allocate, under their own name.
[[gnu::always_inline]] inline void *reallocate(void *pointer, size_t size, const Caller &caller,
                                               OnFailure on_failure = report_failure) {
    if (size == 0) {
        zel_free(pointer);
        return nullptr;
    }
    if (pointer == nullptr) {
        return allocate(size, caller, on_failure);
    }
    void *block = zel_realloc_core(pointer, size, caller);
    return block != nullptr ? block : fail(size, caller, on_failure);
}

} // namespace

void *zel_malloc(size_t size, const char *function, const char *purpose) {
    return allocate(size, by_function("zel_malloc", function, purpose));
}

void *zel_calloc(size_t count, size_t size, const char *function, const char *purpose) {
    return allocate_zeroed(count, size, by_function("zel_calloc", function, purpose));
}

void *zel_realloc(void *pointer, size_t size, const char *function, const char *purpose) {
    return reallocate(pointer, size, by_function("zel_realloc", function, purpose));
}

void *zel_malloc_fl(size_t size, const char *name, int32_t line, const char *file) {
    return allocate(size, by_line(name, line, file));
}

void *zel_calloc_fl(size_t count, size_t size, const char *name, int32_t line, const char *file) {
    return allocate_zeroed(count, size, by_line(name, line, file));
}

void *zel_realloc_fl(void *pointer, size_t size, const char *name, int32_t line, const char *file) {
    return reallocate(pointer, size, by_line(name, line, file));
}

// The _if_room entries are described by their name alone.
void *zel_malloc_if_room(size_t size) {
    return allocate(size, by_function("zel_malloc_if_room", nullptr, nullptr), report_unless_out_of_memory);
}

void *zel_calloc_if_room(size_t count, size_t size) {
    return allocate_zeroed(count, size, by_function("zel_calloc_if_room", nullptr, nullptr),
                           report_unless_out_of_memory);
}

void *zel_realloc_if_room(void *pointer, size_t size) {
    return reallocate(pointer, size, by_function("zel_realloc_if_room", nullptr, nullptr), report_unless_out_of_memory);
}

void zel_free(void *pointer) {
    if (pointer != nullptr) {
        zel_free_core(pointer);
    }
}

unsigned long zel_malloc_total_requested() {
    return zel::memory::state.total_requested;
}
