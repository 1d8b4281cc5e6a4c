// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A request of the start-up hook, taken apart.
#ifndef ZEL_COMPONENTS_PLATFORM_DEBUG_HOOKS_REQUEST_H
#define ZEL_COMPONENTS_PLATFORM_DEBUG_HOOKS_REQUEST_H

#include <string_view>

namespace zel::debug_hooks {

// The texts of the hook come from malloc and not from the memory library: the debug heap
// can be switched on only before the memory library's first allocation, and the hook runs
// before the program can do so. Without memory the process ends after a message.

// A request taken apart.
struct Request {
    char *line;       // a copy of the request; the words stand in it
    char **words;     // all words, the op first; ended by null
    const char *op;   // null when the request has no word
    char **arguments; // the words after the op; ended by null
};

// Takes a request apart. The caller gives the storage back by release.
Request take_apart(const char *text);

// Releases the storage of a request.
void release(const Request &request);

// Allocates a text of that length and its NUL. The caller releases it with free.
char *allocate_text(size_t length);

// Copies a text. The caller releases the copy with free.
char *copy_text(std::string_view text);

} // namespace zel::debug_hooks

#endif
