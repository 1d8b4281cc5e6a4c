// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Going through the open descriptors of this process.
#ifndef ZEL_COMPONENTS_PLATFORM_BASE_OPEN_DESCRIPTORS_H
#define ZEL_COMPONENTS_PLATFORM_BASE_OPEN_DESCRIPTORS_H

namespace zel {

// Calls visit with each open descriptor, in the order of their numbers, and with kept.
// visit may close the descriptor. No storage of the heap is used, so that a child may do
// this between fork and exec. Returns whether the list of them was read to its end; if
// not, errno holds the reason.
bool visit_open_descriptors(void (*visit)(int fd, int kept), int kept);

} // namespace zel

#endif
