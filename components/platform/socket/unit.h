// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The name of the socket unit, as assertions print it.
#ifndef ZEL_COMPONENTS_PLATFORM_SOCKET_UNIT_H
#define ZEL_COMPONENTS_PLATFORM_SOCKET_UNIT_H

namespace zel {

inline constexpr const char *kSocketUnit = "components/platform/socket";

} // namespace zel

#endif
