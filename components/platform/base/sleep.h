// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Sleeping for a whole time, whatever signals arrive meanwhile.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_SLEEP_H
#define ZEL_COMPONENTS_PLATFORM_BASE_SLEEP_H

namespace zel {

// Returns after that many seconds.
void sleep_seconds(unsigned int seconds);

} // namespace zel

#endif
