// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Counters of memory and copies. This program's malloc, calloc, realloc and free take the
// place of the C library's, in its own calls too. The linker sends the calls of memcpy and
// memmove here, but for those of the C library.
#include "meter.h"

namespace zel::test {

constinit Meter meter = {};

} // namespace zel::test

using zel::test::meter;

extern "C" {

void *system_malloc(size_t size) __asm__("__libc_malloc");
void *system_calloc(size_t count, size_t size) __asm__("__libc_calloc");
void *system_realloc(void *block, size_t size) __asm__("__libc_realloc");
void system_free(void *block) __asm__("__libc_free");
void *real_memcpy(void *target, const void *source, size_t length) __asm__("__real_memcpy");
void *real_memmove(void *target, const void *source, size_t length) __asm__("__real_memmove");
void *counted_memcpy(void *target, const void *source, size_t length) __asm__("__wrap_memcpy");
void *counted_memmove(void *target, const void *source, size_t length) __asm__("__wrap_memmove");

void *malloc(size_t size) {
    meter.allocations += meter.on ? 1 : 0;
    return system_malloc(size);
}

void *calloc(size_t nmemb, size_t size) {
    meter.allocations += meter.on ? 1 : 0;
    return system_calloc(nmemb, size);
}

void *realloc(void *ptr, size_t size) {
    meter.allocations += meter.on ? 1 : 0;
    return system_realloc(ptr, size);
}

void free(void *ptr) {
    meter.releases += meter.on && ptr != nullptr ? 1 : 0;
    system_free(ptr);
}

void *counted_memcpy(void *target, const void *source, size_t length) {
    meter.copied += meter.on ? length : 0;
    return real_memcpy(target, source, length);
}

void *counted_memmove(void *target, const void *source, size_t length) {
    meter.copied += meter.on ? length : 0;
    return real_memmove(target, source, length);
}

} // extern "C"
