// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Included ahead of every source of the library: it bans the calls that copy without a
// bound.
#ifndef ZEL_MSG_BASE_PRELUDE_H
#define ZEL_MSG_BASE_PRELUDE_H

// These headers name the banned calls, so they come first.
#include <cstdio>
#include <cstring>
#include <string_view>

#pragma GCC poison strcpy strcat sprintf vsprintf strtok gets

#endif
