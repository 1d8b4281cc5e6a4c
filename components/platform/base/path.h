// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Paths as every unit of this folder holds them.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_PATH_H
#define ZEL_COMPONENTS_PLATFORM_BASE_PATH_H

#include <msg/base/text.h>

#include <array>

namespace zel {

// A path of up to 4096 characters. What would be longer is refused where it is built.
using PathBuffer = std::array<char, 4097>;

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
