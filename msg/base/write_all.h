// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Writing a whole text to a descriptor.
#ifndef ZEL_MSG_BASE_WRITE_ALL_H
#define ZEL_MSG_BASE_WRITE_ALL_H

#include <cstddef>
#include <string_view>

namespace zel {

// Goes on after an interruption, and waits for a full non-blocking descriptor. Returns
// how many characters were written; when not all of them were, errno says why. Needs no
// memory.
size_t write_all(int fd, std::string_view text);

} // namespace zel

#endif
