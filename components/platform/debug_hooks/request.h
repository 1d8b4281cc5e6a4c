// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A request of the start-up hook, taken apart.
#ifndef ZEL_COMPONENTS_PLATFORM_DEBUG_HOOKS_REQUEST_H
#define ZEL_COMPONENTS_PLATFORM_DEBUG_HOOKS_REQUEST_H

#include <string_view>

namespace zel::debug_hooks {

// A request taken apart. The words are those behind the op.
struct Request {
    char *line;   // the copy that the words stand in
    char **words; // line, op and all; ended by null
    const char *op;
    char **arguments;
};

// Takes a request apart. release gives its storage back.
Request take_apart(const char *text);
void release(const Request &request);

// The texts here come from the C library's allocator: the hook runs before the program has decided on its debug heap,
// and an allocation of the memory library would decide for it. Their length is whatever the command line's was.
char *allocate_text(size_t length);
char *copy_text(std::string_view text);

} // namespace zel::debug_hooks

#endif
