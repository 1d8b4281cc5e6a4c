// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The way from one absolute path to another: pure text work.
#ifndef ZEL_COMPONENTS_PLATFORM_FILE_CONTROL_RELATIVE_PATH_H
#define ZEL_COMPONENTS_PLATFORM_FILE_CONTROL_RELATIVE_PATH_H

#include <span>
#include <string_view>

namespace zel {

// Writes the path that leads from base to target, with its NUL. Returns false when it does not fit.
bool compose_relative_path(std::string_view base, std::string_view target, std::span<char> result);

} // namespace zel

#endif
