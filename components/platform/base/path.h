// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Storage for a path, and the parts of its last component.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_PATH_H
#define ZEL_COMPONENTS_PLATFORM_BASE_PATH_H

#include <msg/base/text.h>

#include <array>

namespace zel {

// The longest path that is held, in characters. A longer one is refused where it is
// built.
inline constexpr size_t kPathLength = 4096;

// A path with its NUL. A caller's buffer for a whole path has this size as well.
inline constexpr size_t kPathBufferSize = kPathLength + 1;
using PathBuffer = std::array<char, kPathBufferSize>;

// The part after the last "/", or the whole path when it has none.
constexpr std::string_view last_component(std::string_view path) {
    return part_from(path, path.rfind('/') + 1);
}

// A last component cut at its last ".", unless that "." is its first character.
constexpr std::string_view without_extension(std::string_view component) {
    const size_t dot = component.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? component : first_part(component, dot);
}

} // namespace zel

#endif
