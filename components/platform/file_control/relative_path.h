// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Composing the path that leads from one absolute path to another. It works on texts
// alone.
#ifndef ZEL_COMPONENTS_PLATFORM_FILE_CONTROL_RELATIVE_PATH_H
#define ZEL_COMPONENTS_PLATFORM_FILE_CONTROL_RELATIVE_PATH_H

#include <span>
#include <string_view>

namespace zel {

// Writes the path that leads from base to target, with its NUL, into the result. The
// target may stand in the result. Returns false when the path does not fit; the result is
// unchanged then.
bool compose_relative_path(std::string_view base, std::string_view target, std::span<char> result);

} // namespace zel

#endif
