// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Read ahead of every source of the library: the copies that do not know where their target ends cannot be called.
#ifndef ZEL_MSG_BASE_PRELUDE_H
#define ZEL_MSG_BASE_PRELUDE_H

// The standard headers name the banned calls themselves, so they come first.
#include <cstdio>
#include <cstring>
#include <string_view>

#pragma GCC poison strcpy strcat sprintf vsprintf strtok gets

#endif
