// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A JSON text, written twice: first to learn its length, then into storage.
#ifndef ZEL_MALLOC_INTERNAL_JSON_TEXT_H
#define ZEL_MALLOC_INTERNAL_JSON_TEXT_H

#include <cstddef>
#include <span>
#include <string_view>

#pragma GCC visibility push(hidden)

namespace zel::memory {

// What is put into a text that has no storage is only counted. What does not fit into its
// storage is cut.
struct JsonText {
    std::span<char> storage;
    size_t length; // of all that was put
};

// Puts characters as they stand.
void put(JsonText &json, std::string_view text);

// Puts a number.
void put_number(JsonText &json, long long number);

// Puts a string in its quotes; null for a null text. Each byte that is not valid UTF-8 is
// U+FFFD.
void put_string(JsonText &json, const char *text);

} // namespace zel::memory

#pragma GCC visibility pop

#endif
